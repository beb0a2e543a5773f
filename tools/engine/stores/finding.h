// What can be wrong with the stores of a volume. Who looks for it, who mends it and who explains it speak of the same
// findings by the same names.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace engine {

enum class FindingKind : uint8_t {
    malformed_stream,
    malformed_resource,
    malformed_double,
    malformed_metadata,
    value_cut,
    fork_cut,
    extra_bytes,
    extra_blocks,
    orphan,
    shared,
    finder_info_differs,
    half_upgraded,
    half_converted,
    old_layout,
    other_form,
    wrong_kind,
    closed,
    left_over,
    empty,
    in_use,
};

struct FindingRow {
    FindingKind kind;
    const char *name; // never changed once it was released: scripts ask for it
    const char *text; // what it is, in a few words
    const char *meaning, *help;
};

// In the order of the enumeration.
inline constexpr std::array kFindingTable = std::to_array<FindingRow>({
    {FindingKind::malformed_stream, "store-malformed-stream", "attribute stream that is malformed",
     "A field of the file that keeps a file's attributes has a value that cannot be; it is named. The library reads "
     "the file in part, or refuses it, or reads it and does not change it.",
     "\"store repair\" writes it anew with what can still be read; the rest stays in the quarantine."},
    {FindingKind::malformed_resource, "store-malformed-resource", "resource file that is malformed",
     "A field of the file that keeps Finder Info and resource fork has a value that cannot be; it is named.",
     "\"store repair\" writes it anew with what can still be read; the rest stays in the quarantine."},
    {FindingKind::malformed_double, "store-malformed-double", "\"._\" file that is malformed",
     "A field of the AppleDouble file beside a file has a value that cannot be; it is named.",
     "\"store repair\" writes it anew with what can still be read; the rest stays in the quarantine."},
    {FindingKind::malformed_metadata, "store-malformed-metadata", "metadata attribute that is malformed",
     "The attribute in which a file carries its Finder Info has another size, or lacks an entry or the place of one.",
     "\"store repair\" writes it anew with the entries that can still be read."},
    {FindingKind::value_cut, "store-value-cut", "attribute whose value is cut short",
     "The file that keeps the attribute ends before its value does.",
     "\"store repair\" takes the attribute out; what is left of its value stays in the quarantine. Bring it back from "
     "a "
     "backup."},
    {FindingKind::fork_cut, "store-fork-cut", "resource fork that is cut short",
     "The file that keeps the resource fork ends before the fork does.",
     "\"store repair\" keeps what is there as the fork. Bring it back from a backup."},
    {FindingKind::extra_bytes, "store-extra-bytes", "bytes behind the end of a store file",
     "The file goes on where all that its header names has ended; nobody reads that.",
     "\"store repair\" cuts them off; they stay in the quarantine."},
    {FindingKind::extra_blocks, "store-extra-blocks", "blocks behind the end of a store file",
     "Room was reserved behind the end of the file and never used.", "\"store repair\" gives it back."},
    {FindingKind::orphan, "store-orphan", "store whose file is gone",
     "No file of the name that it is kept for stands beside it. Where a client has renamed the file, the file that it "
     "may belong to now is named: by the inode number in the store, or by its name.",
     "Give it to that file with \"ea rename OLD NEW\", or remove it with \"ea remove OLD\"."},
    {FindingKind::shared, "store-shared", "store of several names",
     "Two long names are shortened to one, or the store file has other names elsewhere: what is written for one file "
     "is read for the other.",
     "Rename one of the files, or copy the store file to one of its own."},
    {FindingKind::finder_info_differs, "store-finder-info-differs", "Finder Info that is kept twice and differs",
     "The metadata attribute has another Finder Info than the resource file; which was changed later is told.",
     "Where the right one is known, set it with a Mac; the library takes the resource file's when that was changed "
     "after the two were last brought in step."},
    {FindingKind::half_upgraded, "store-half-upgraded", "upgrade that was not finished",
     "An attribute or resource is there in the old layout and in the current one.",
     "\"ea upgrade\" goes on where it was stopped, and tells an attribute that differs."},
    {FindingKind::half_converted, "store-half-converted", "store in two forms",
     "What is kept for the file is there as this volume keeps it and as another kind of volume does.",
     "\"store convert\" makes one of them where they say the same. Else look at both with \"ea show\", and remove the "
     "one "
     "that is not wanted."},
    {FindingKind::old_layout, "store-old-layout", "store of the old layout",
     "Attributes or resource lie in small files in the file's own directory in \"@eaDir\".",
     "\"ea upgrade\" converts it."},
    {FindingKind::other_form, "store-other-form", "store in the form of another kind of volume",
     "The library does not look for it here: it came with a disk or with a program that copies files one by one.",
     "\"store convert\" brings it into the form of this volume; \"ea show FILE\" shows it."},
    {FindingKind::wrong_kind, "store-wrong-kind", "no file where a store file should be",
     "A link, pipe, socket, device or directory stands in the place of a store file, or no directory in that of "
     "\"@eaDir\". Nothing follows it, and the file has no store.",
     "\"store repair\" takes a link, pipe or socket away; look at anything else."},
    {FindingKind::closed, "store-closed", "store that keeps out who may use its file",
     "By owner and mode somebody who may read the file may not read its store, or its owner may not change that.",
     "Give the store file the file's owner and mode (chown --reference, chmod --reference), once it is sure whose it "
     "is: anybody may put a file into an \"@eaDir\". So this is never done by itself."},
    {FindingKind::left_over, "store-left-over", "something that was under way",
     "A command that was stopped, or the system's own \"@tmp\", has left it.",
     "\"store repair\" takes a file of a command that is proven to be gone away. For anything else make sure that "
     "nothing is under way on another machine, and remove it."},
    {FindingKind::empty, "store-empty", "directory of stores that holds nothing",
     "An \"@eaDir\", or the directory of a file in it, is empty.", "\"store repair\" removes it."},
    {FindingKind::in_use, "store-in-use", "store that another process has locked",
     "It may be in the middle of a change, so that it was not looked into.", "Check again."},
});

constexpr const FindingRow &finding_row(FindingKind kind) {
    return kFindingTable[static_cast<size_t>(kind)];
}
// Nothing: there is no finding of that name.
std::optional<FindingKind> finding_kind(std::string_view name);

struct Finding {
    enum class State : uint8_t { found, mended, left };

    FindingKind kind = FindingKind::in_use;
    std::string place = {};   // the store file, directory or attribute, as the user knows it
    std::string file = {};    // that it is kept for; empty: none, or not one
    std::string belongs = {}; // of an orphan: the file that it may belong to now
    std::string detail = {};  // for people: the first bad field
    std::string remedy = {};  // what a repair does about it; empty: nothing
    State state = State::found;
    std::string reason = {}; // of one that is left although there is a remedy
};

// "found", "mended", "left".
const char *state_name(Finding::State state);

} // namespace engine
