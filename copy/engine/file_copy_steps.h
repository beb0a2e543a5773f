// One single-file copy under way: its state, and its steps in the order in which they run. Where a step is defined:
//   file_copy.cpp             the order, the data, and the end of every call
//   file_copy_move.cpp        the types of the volumes, and the move by rename
//   file_copy_open.cpp        names, and opening both files
//   file_copy_attributes.cpp  what a file has beside its data
#pragma once

#include "copy/engine/file_copy.h"
#include "copy/engine/new_copy.h"
#include "platform/core.h"
#include "support/errno_table.h"
#include "support/error_codes.h"
#include "support/fd.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cstdint>

namespace vexo {

class FileCopy {
  public:
    explicit FileCopy(const FileCopyRequest &request) : m_request(request), m_dst(request.dst) {}

    int run();

  private:
    // How a step ended: the next one follows, or the call is decided. A step that fails has set the last error.
    enum class Next { step, success, failure };

    Next perform();

    Next find_source_type();
    Next confirm_source_type(bool opened);
    Next move_by_rename();
    Next finish_rename();
    Next find_destination_type();

    Next fix_destination_name();
    Next open_source();
    Next create_destination();
    Next recognise_same_file();
    Next check_size_limit();
    Next open_destination();
    Next settle_conflict();
    Next refuse_destination(int flags);

    Next fill_destination();
    Next share_extents();
    Next transfer_data();
    bool stays_open() const;
    Next close_destination();
    Next abandon_destination();

    void give_owner();
    void give_owner_of_source();
    void give_chosen_owner();
    void restore_set_id_bits();
    void set_dos_attributes();
    void list_source_attributes();
    bool set_record_now();
    void set_times();
    void set_times_as_current_user();
    void copy_acl();
    class WritableByOwner;
    void copy_metadata();

    void remove_destination();
    void remove_source();
    void report_failure();

    // What the steps after the data work on.
    FileRef source() const { return {m_request.src, m_dstFd ? m_srcFd.get() : -1}; }
    FileRef destination() const { return {m_dst, m_dstFd.get()}; }
    NewCopy new_copy() const {
        return {source(), destination(), source_type(), destination_type(), m_names, store_seen()};
    }
    // What the walk knows of the stores. A destination that got another name may lie in another directory.
    StoreSeen store_seen() const {
        return m_request.directory != nullptr && m_dst == m_request.dst ? m_request.directory->stores
                                                                        : StoreSeen::unknown;
    }

    // Whether the two files are opened in their open directories. All steps after that work on the open files then.
    bool has_open_directories() const {
        return m_request.directory != nullptr && m_request.directory->to >= 0 && m_request.moveDataIsOurs;
    }
    static const char *name_in(const char *path);

    int32_t source_type() const { return *m_request.srcType; }
    int32_t destination_type() const { return *m_request.dstType; }
    // A file may be given away by root only; asCaller tries all the same.
    bool may_choose_owner() const;

    static Next refuse(Error error, Place place) {
        set_error(error, place);
        return Next::failure;
    }

    const FileCopyRequest &m_request;
    const char *m_dst; // the request's, or the text of one of the two buffers
    PathBuffer m_fixedDst;
    PathBuffer m_renamedDst;
    VLIBCStat m_srcStat = {}; // filled when the source is opened
    Fd m_srcFd;
    Fd m_dstFd;                   // after the data: only of a destination that stays open
    AttributeNames m_names;       // of the source, where they need not be asked for one by one
    bool m_recordSet = false;     // set_record_now() did what later steps need not
    bool m_typeAssumed = false;   // the source's, from the directory that holds it
    bool m_madeInTree = false;    // create_destination() made the destination
    bool m_madeByName = false;    // and in its open directory
    bool m_dstExisted = false;    // before it was opened
    bool m_dstWasSpecial = false; // it existed, and was no regular file
    bool m_dstWasPipe = false;
    bool m_renamedOnce = false;  // the rename callback gave a name
    bool m_removeSource = false; // a move that copied
    bool m_ownerPending = false; // asCaller: an owner was to be set and was not
};

} // namespace vexo
