#include "tools/engine/report/error_table.h"

#include <algorithm>
#include <fmt/format.h>

namespace engine {
namespace {

constexpr ErrorInfo kErrors[] = {
    {0x0100, "out of memory for extended metadata",
     "Memory ran out while attributes or the metadata directory were handled, or a metadata value is larger than 64 "
     "KiB "
     "and cannot be kept as a native attribute.",
     "Free memory and try again; a value over 64 KiB can only be kept on a volume that stores metadata in files."},
    {0x0200, "out of memory", "Memory for the copy buffer or a record could not be had.",
     "End other programs or raise the memory limit of this one, and try again."},
    {0x0300, "permission denied",
     "The file, its directory or the volume does not let this user read, write or rename; or a metadata stream was "
     "opened without the lock that the step needs.",
     "Check owner, mode and ACL of the file and of every directory above it, or run as a user who may."},
    {0x0400, "metadata is locked by another program",
     "The lock on a file's metadata stream is held by another process; it is never waited for.",
     "Close the file in the program that uses it (often a file server) and try again."},
    {0x0600, "path missing or not readable",
     "The destination or its directory does not exist, the type of the volume could not be read, an entry vanished "
     "while its directory was walked, or the device reported an I/O error.",
     "Check that both paths exist and that the volume is mounted and healthy (see the system log)."},
    {0x0700, "no such file",
     "The source does not exist (any more), the source of metadata is missing or a directory, or a resource fork is "
     "empty.",
     "Check the spelling of the path and that no other program moved the file."},
    {0x0800, "no free name beside the existing file",
     "The destination exists and another name for the copy could not be made, or that name was taken meanwhile. Names "
     "are tried up to \"(98)\".",
     "Remove or move older copies, or give another destination."},
    {0x0900, "cannot be opened", "Opening the file, or a file of its metadata, failed.",
     "Check that the path exists, what kind of file it is, and its permissions."},
    {0x0A00, "reading failed or the file ended early",
     "The source became shorter while it was read, a read failed, or stored Apple metadata is malformed.",
     "Make sure that no other program changes the file during the copy; check the volume."},
    {0x0B00, "writing failed", "A write failed or stayed short, an attribute could not be set, or a tree not removed.",
     "Check free space, permissions and the state of the destination volume."},
    {0x0D00, "invalid argument", "A path is empty or relative, or a value is outside its range.",
     "Check the arguments of the call."},
    {0x1100, "the storage is gone", "The storage behind the path does not answer any more (EHOSTDOWN).",
     "Check the remote host, cable or enclosure and mount the volume again."},
    {0x2000, "no such attribute", "The file's metadata stream holds no attribute of that name.",
     "List the attributes that the file has."},
    {0x2400, "disk quota exceeded", "The quota of the user, group or shared folder is used up.",
     "Free space under the quota or have it raised."},
    {0x2600, "positioning in the file failed",
     "A seek failed, in a metadata stream or while the holes of a sparse file were looked up.",
     "Check the volume; the system log says more."},
    {0x2700, "file status not readable", "Looking up the file failed for a reason other than that it does not exist.",
     "Check the path for a loop of symbolic links, and the volume for errors."},
    {0x2800, "renaming extended metadata failed", "A part of the file's metadata could not be renamed with the file.",
     "Check permissions in the hidden metadata directory beside the file."},
    {0x2900, "no space left on the volume",
     "The volume is full, or has less free space than the file needs; a large file is refused before it is begun.",
     "Free space on the destination volume or choose another one."},
    {0x2A00, "a file operation was refused",
     "Allocating, cutting, flushing, listing attributes, changing a mode or removing a file failed, or an entry of "
     "Apple metadata is missing.",
     "Check permissions and what the volume's file system supports; the system log says more."},
    {0x3900, "could not be removed", "A tree or a metadata file could not be removed.",
     "Check permissions and whether a file in it is in use or immutable."},
    {0x3A00, "the last step of the relocation failed",
     "A shared folder was copied, but the copy could not be put in its final place.",
     "Look into the staging directory \"@tmp\" of the destination before anything else; the copy may be there."},
    {0x3B00, "a write stayed short",
     "Fewer bytes were written than read, or a shared folder could not be copied into the staging directory.",
     "Check free space and the state of the destination volume."},
    {0x3C00, "a working directory could not be made",
     "The staging directory or the metadata directory could not be created.",
     "Check permissions and free space on the destination volume."},
    {0x4000, "not an Apple metadata file of version 2",
     "An upgrade met a resource file that is not AppleDouble version 2 or lacks the entries needed.",
     "The file stays as it is; move it away when it is of no use."},
    {0x6C00, "I/O error or no such device", "The device reported an error (EIO or ENXIO).",
     "Check the disk and its connection (system log, S.M.A.R.T.) before trying again."},
    {0x8000, "failed; the system log says why", "The system answered with an error that has no code of its own.",
     "The system log holds the line with the number and the words of that error."},
    {0x8400, "read-only file system", "The destination volume is mounted read-only.",
     "Mount it writable, or find out why the system made it read-only."},
    {0x9A00, "the file name is empty", "The last part of a path came out empty.", "Give a path that ends in a name."},
    {0xA000, "the destination is not a directory", "A directory was to be written where something else stands.",
     "Choose another destination or move away what is there."},
    {0xA200, "the destination is a directory", "A file was to be written where a directory stands.",
     "Give the full path of the file, or the directory itself to put the file into it."},
    {0xA300, "destination exists", "A file is there already and was not to be replaced.",
     "Use -f to replace it, -n to leave it, -i to be asked, or --keep-both to keep both under different names."},
    {0xA400, "file too large for FAT", "A file system of the FAT family takes files of at most 4 GiB.",
     "Format the volume with exFAT or another file system, or split the file."},
    {0xA600, "cancelled", "The operation was stopped on request; what was half written has been removed.",
     "Run it again."},
    {0xAA00, "file too large for the destination",
     "The file is larger than the destination's file system or service takes, or than the size limit of the process.",
     "Choose another destination, or raise the limit (ulimit -f)."},
    {0xBE00, "no such shared folder", "No shared folder holds the path.", "Choose a path inside a shared folder."},
    {0xBF00, "attribute value too large", "An attribute's value does not fit the buffer of the one who asked for it.",
     "Ask with a larger buffer."},
    {0xC300, "name or path too long", "A name is longer than the file system takes, or a path has 4096 bytes or more.",
     "Use shorter names or a directory less deep."},
    {0xD900, "clone copies are not supported here",
     "Switching clone copies on was asked on a machine whose configuration does not say that it has btrfs volumes.",
     "Only a machine with support_btrfs=\"yes\" in /etc/vexoinfo.conf can switch them on."},
    {0xFA00, "copied, but the owner could not be kept",
     "The copy is complete; giving it the owner of the source needs rights that this user does not have.",
     "Nothing is lost but the owner. Copy as root to keep owners."},
};

} // namespace

std::span<const ErrorInfo> error_table() {
    return kErrors;
}

const ErrorInfo *find_error(uint32_t code) {
    const auto *const row = std::ranges::lower_bound(kErrors, code, {}, &ErrorInfo::code);
    return row != std::end(kErrors) && row->code == code ? row : nullptr;
}

std::string_view reason_of(uint32_t code) {
    const ErrorInfo *const row = find_error(code);
    if (row != nullptr) {
        return row->reason;
    }
    return code == 0 ? "failed; the system log may say why" : "failed with a code that this version does not know";
}

std::string code_text(uint32_t code) {
    return fmt::format("0x{:04X}", code);
}

} // namespace engine
