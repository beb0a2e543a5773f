// A file of several names, for as long as one of them is being carried: what others do with the other names comes
// before, or after.
#pragma once

#include "tools/engine/transfer/ledger.h"
#include "tools/engine/transfer/linked_files.h"

#include <optional>
#include <sys/stat.h>

namespace engine {

class LinkLease {
  public:
    // Without a ledger nobody else is there, and nothing is taken. Both outlive this.
    LinkLease(Ledger *ledger, LinkedFiles &files) : m_ledger(ledger), m_files(files) {}
    LinkLease(const LinkLease &) = delete;
    LinkLease &operator=(const LinkLease &) = delete;
    ~LinkLease() {
        if (m_taken) {
            m_ledger->give_back(*m_taken, m_files.take_out(*m_taken));
        }
    }

    // `hadMore`: one of a single name may have had others, which this run has removed. True: it was taken, and may be
    // another one by now than when it was looked at.
    bool take(const struct stat &file, bool hadMore) {
        const bool several = file.st_nlink > 1 || (hadMore && m_ledger != nullptr && m_ledger->has_linked_files());
        if (m_ledger == nullptr || m_taken || !S_ISREG(file.st_mode) || !several) {
            return false;
        }
        m_taken.emplace(file.st_dev, file.st_ino);
        m_files.put_in(*m_taken, m_ledger->take(*m_taken));
        return true;
    }

  private:
    Ledger *m_ledger;
    LinkedFiles &m_files;
    std::optional<FileNumber> m_taken = {};
};

} // namespace engine
