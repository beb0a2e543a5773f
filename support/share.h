// Owners of the records that the platform gives about shared folders and homes; empty when it gave none.
#pragma once

#include "platform/sdk.h"

namespace vexo {

class Share {
  public:
    // The share of that name.
    explicit Share(const char *name) {
        if (VEXOShareGet(name, &m_record) < 0) {
            m_record = nullptr;
        }
    }
    Share(const Share &) = delete;
    Share &operator=(const Share &) = delete;
    ~Share() {
        if (m_record != nullptr) {
            VEXOShareFree(m_record);
        }
    }

    explicit operator bool() const { return m_record != nullptr; }
    const VEXOShare *operator->() const { return m_record; }

  private:
    VEXOShare *m_record = nullptr;
};

class Home {
  public:
    // The home that holds `path`.
    explicit Home(const char *path) {
        if (VEXOServiceHomePathCheck(path, 1, 1, &m_record) < 1) {
            m_record = nullptr;
        }
    }
    Home(const Home &) = delete;
    Home &operator=(const Home &) = delete;
    ~Home() {
        if (m_record != nullptr) {
            VEXOHomeCheckResultFree(m_record);
        }
    }

    explicit operator bool() const { return m_record != nullptr; }
    const VEXOHomeCheckResult *operator->() const { return m_record; }

  private:
    VEXOHomeCheckResult *m_record = nullptr;
};

} // namespace vexo
