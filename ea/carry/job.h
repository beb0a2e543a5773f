// One request to carry what belongs to a file from one path to another.
#pragma once

#include "ea/carry/known.h"
#include "ea/names/store.h"
#include "support/callback.h"
#include "support/file_ref.h"
#include "support/report.h"

#include <cstdint>

namespace vexo {

// The name under which all of it reports.
inline constexpr char kEaCopySource[] = "ea/ea_copy.c";
#define VEXO_EA_COPY_HERE VEXO_AT(::vexo::kEaCopySource)

// "This pair cannot be converted", as a routine says it: only the locked state is carried then.
inline constexpr int kCannotConvert = -4;
inline constexpr int kCannotConvertCode = 0xc300;
inline constexpr int kNameTooLong = -3;

using CopyFileCallback = Callback<int(const char *, const char *)>;

struct EaCopyJob {
    const char *src;
    const char *dst;
    bool move;
    bool fullDirectory; // carry the rest of the source's directory even from or to the AppleDouble kind
    int32_t srcCode;
    int32_t dstCode;
    CopyFileCallback copyFile;    // in place of the copy of one file of the store
    bool copyFileOfFileOperation; // it came from a file-operation record, whose log lines differ
    StoreSeen seen = StoreSeen::unknown;
    bool streamsStay = false;              // nothing was converted: the names on the way are passed over
    bool nothingStored = false;            // the source has no "@eaDir" and, where it could, no metadata attribute
    bool apart = false;                    // two files, as the caller has seen
    const AttributeNames *names = nullptr; // of the source, where they are known
    bool recordSet = false;                // locked state and archive bit are set, and the platform's record carried

    // Found out on the way: the resource file was copied, and is too short to hold the word of the AFP attributes.
    mutable bool noAfpWord = false;
    // The source has no directory of its own in "@eaDir". A move, after which nobody can look again, asks when it comes
    // to that.
    mutable bool noOwnDirectory = false;

    int srcFd = -1; // where the files are open
    int dstFd = -1;

    FileRef source() const { return {src, srcFd}; }
    FileRef destination() const { return {dst, dstFd}; }
    StoreKind srcKind() const { return store_kind(srcCode); }
    // Type 12 takes what another kind keeps in "@eaDir", and only that.
    StoreKind dstKind() const {
        const bool fromEaDirectory = srcKind() == StoreKind::ea_directory || srcKind() == StoreKind::file_ea;
        return dstCode == 12 && fromEaDirectory ? StoreKind::ea_directory : store_kind(dstCode);
    }
    // The "@eaDir" of a type-12 source is never removed.
    bool keepsSourceDirectory() const { return srcCode == 12; }
};

// Fills in a kind of -1: of the source itself, of the directory that holds the destination. Reported under the names of
// the entry point and its source. 0 or -1.
int look_up_source_kind(EaCopyJob &job, const char *entry, const char *source);
int look_up_destination_kind(EaCopyJob &job, const char *entry, const char *source);

} // namespace vexo
