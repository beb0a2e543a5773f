#include "tools/engine/stores/entry_conversion.h"

#include "ea/ea.h"
#include "tools/engine/compare/entry_view.h"
#include "tools/engine/compare/findings.h"
#include "tools/engine/losses/wording.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/native_attributes.h"
#include "tools/engine/store/old_attributes.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/store.h"
#include "tools/engine/stores/entry_writing.h"
#include "tools/engine/stores/form_reading.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <functional>
#include <iterator>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace engine {
namespace {

bool is_zero(std::string_view bytes) {
    return std::ranges::all_of(bytes, [](char byte) { return byte == '\0'; });
}

// Two stores' values, read by parts.
bool is_same_part(uint64_t size, const std::function<std::string(uint64_t, uint64_t)> &one,
                  const std::function<std::string(uint64_t, uint64_t)> &other, bool atOnce) {
    const uint64_t part = atOnce ? std::max<uint64_t>(size, 1) : uint64_t{1} << 20;
    for (uint64_t done = 0; done < size; done += part) {
        const uint64_t length = std::min(part, size - done);
        if (one(done, length) != other(done, length)) {
            return false;
        }
    }
    return true;
}

bool same_attribute(SeenAs &one, const StoreContents::Attribute &first, SeenAs &other,
                    const StoreContents::Attribute &second) {
    return first.size == second.size &&
           is_same_part(
               first.size, [&](uint64_t offset, uint64_t size) { return one.contents().value(first, offset, size); },
               [&](uint64_t offset, uint64_t size) { return other.contents().value(second, offset, size); }, false);
}

bool same_forks(SeenAs &one, SeenAs &other) {
    const uint64_t size = one.contents().fork_size();
    const bool atOnce = one.kind() == StoreKind::native || other.kind() == StoreKind::native;
    return size == other.contents().fork_size() &&
           is_same_part(
               size, [&](uint64_t offset, uint64_t length) { return one.contents().fork(offset, length); },
               [&](uint64_t offset, uint64_t length) { return other.contents().fork(offset, length); }, atOnce);
}

// By name, of which there may be very many.
std::vector<StoreContents::Attribute>::const_iterator attribute_in(const std::vector<StoreContents::Attribute> &sorted,
                                                                   const std::string &name) {
    const auto found = std::ranges::lower_bound(sorted, name, {}, &StoreContents::Attribute::name);
    return found != sorted.end() && found->name == name ? found : sorted.end();
}

// What a killed run was writing.
void clear_unfinished(int directory, const std::string &name) {
    try {
        const PrivateFile taken(directory, name, 0600);
    } catch (const Failure &) { // its directory has gone, or another process writes it
    }
}

// `some`: of the first only what is left may be there.
bool same_attributes(SeenAs &one, SeenAs &other, bool some) {
    const auto first = one.attributes(), second = other.attributes();
    if (!some && first.size() != second.size()) {
        return false;
    }
    return std::ranges::all_of(first, [&](const StoreContents::Attribute &attribute) {
        const auto found = attribute_in(second, attribute.name);
        return found != second.end() && same_attribute(one, attribute, other, *found);
    });
}

} // namespace

SeenAs::SeenAs(int directory, const std::string &name, const VolumeFacts &facts)
    : side{directory, name, facts}, view(side) {
    view.pin();
    if (!view.contents().problems().empty()) {
        throw Failure(fmt::format("its store cannot be read: {}", view.contents().problems().front()));
    }
}

std::vector<StoreContents::Attribute> SeenAs::attributes() {
    std::vector<StoreContents::Attribute> all = contents().attributes();
    if (kind() == StoreKind::native) {
        std::erase_if(all, [this](const StoreContents::Attribute &one) {
            return !is_in_native_form(one.name, !side.volume.noForks);
        });
    }
    return all;
}

bool EntryConversion::has_old(const EntryForms &forms, StoreKind to) {
    const bool native = forms.seen_native();
    switch (to) {
    case StoreKind::apple_double:
        return forms.seen_in_directory() || native;
    case StoreKind::native:
        return forms.seen_in_directory() || forms.seen_beside();
    case StoreKind::ea_directory:
        return forms.seen_beside() || native || forms.metadata();
    case StoreKind::file_ea: // without the attribute there may be a resource file that it is to be made of
        return forms.seen_beside() || native || (forms.seen_in_directory() && !forms.metadata());
    case StoreKind::none:
        break;
    }
    return false;
}

EntryConversion::Old EntryConversion::seen_as(StoreKind kind, bool before) const {
    VolumeFacts facts;
    facts.store = kind;
    facts.noForks = m_place.kind != StoreKind::native;
    auto seen = std::make_unique<SeenAs>(m_place.directory, m_forms.name(), facts);
    const struct stat &found = seen->view.status().st, &known = m_forms.status();
    if (found.st_dev != known.st_dev || found.st_ino != known.st_ino) {
        throw Failure("somebody has put something else in its place meanwhile");
    }
    if (before) {
        check_read_as_held(seen->contents(), kind, m_forms);
    }
    return seen;
}

std::optional<Conversion> EntryConversion::run() {
    m_result.file = joined(m_place.path, m_forms.name());
    m_result.to = m_options.to;
    if (!has_old(m_forms, m_options.to)) {
        return std::nullopt;
    }
    auto result = attempt();
    if (!result) { // a killed run has made all of it
        (void)m_note.remove();
    }
    return result;
}

std::optional<Conversion> EntryConversion::attempt() {
    try {
        if (!m_options.dryRun) {
            m_note.look_for_it();
        }
        m_forms.open();
        if (!m_options.dryRun) {
            claim_all();
        }
        look_at_both();
        if (m_olds.empty()) {
            return std::nullopt;
        }
        choose();
        if (!has_work()) {
            return std::nullopt;
        }
        check_may_go();
        foresee();
        if (!unaccepted().empty()) {
            m_result.reason = "the new form cannot hold all of it";
            undo_noted();
            return m_result;
        }
        if (m_options.dryRun) {
            check_room();
        } else {
            convert();
        }
        m_result.state = m_options.dryRun ? Conversion::State::convertible : Conversion::State::converted;
    } catch (const Failure &failure) {
        m_result.reason = failure.what();
    }
    return m_result;
}

void EntryConversion::look_at_both() {
    const bool inDirectory = m_forms.stream().is_there() || m_forms.resource().is_there() || m_forms.metadata();
    const StoreKind to = m_options.to;
    if (to != StoreKind::apple_double && m_forms.beside().is_there()) {
        m_olds.push_back(seen_as(StoreKind::apple_double));
    }
    if (to != StoreKind::native && m_forms.seen_native()) {
        m_olds.push_back(seen_as(StoreKind::native));
    }
    if (!to_directory() && inDirectory) {
        m_olds.push_back(seen_as(m_forms.directory_kind()));
    }
    if (to_directory() && m_olds.empty() && inDirectory) {
        const StoreKind from = m_forms.directory_kind();
        m_inPlace = true;
        m_result.from = from;
        if (from != to) {
            m_olds.push_back(seen_as(from));
        }
        return;
    }
    if (to == StoreKind::ea_directory && m_forms.metadata()) {
        m_olds.push_back(seen_as(StoreKind::file_ea));
    }
    const bool target = to == StoreKind::apple_double ? m_forms.beside().is_there()
                        : to == StoreKind::native     ? true
                                                      : inDirectory;
    m_target = target ? seen_as(to) : nullptr;
    m_result.from = m_olds.empty() ? StoreKind::none : m_olds.front()->kind();
}

// Where nothing may be taken from or given to the entry, since it is not known whose it is.
void EntryConversion::check_may_go() {
    check_names();
    const bool attributes = m_forms.metadata() || m_writesMetadata || m_options.to == StoreKind::native ||
                            m_result.from == StoreKind::native || m_forms.seen_native();
    if (attributes && S_ISREG(m_forms.status().st_mode) && m_forms.status().st_nlink > 1) {
        throw Failure(fmt::format("it has {} names, which may be anywhere and have one set of attributes; copy it with "
                                  "them instead",
                                  m_forms.status().st_nlink));
    }
    const bool leaves = !to_directory() && m_forms.seen_in_directory();
    const OldAttributes layout(m_forms.path());
    if (leaves && (layout.any() || std::ranges::find(layout.names(), "VEXO:Resource") != layout.names().end())) {
        throw Failure("some of it is of the old layout; run \"ea upgrade\" on it first");
    }
    const StoreBytes &stream = m_forms.stream().bytes;
    const bool hidden = stream.forkLength > 0 || !is_zero(stream.finderInfo);
    if ((leaves || m_writesStream) && m_forms.stream().holds_anything() && hidden) {
        throw Failure("its attribute stream has a Finder Info or a resource fork, which is read nowhere there; look at "
                      "it with \"ea show\"");
    }
    const std::string inAttribute = m_forms.metadata() ? metadata_finder_info(*m_forms.metadata()) : std::string();
    const std::string &inFile = m_forms.resource().bytes.finderInfo;
    const bool other = to_directory() && m_resourceOf->contents().finder_info() != inAttribute;
    if (!inAttribute.empty() && (other || (!is_zero(inFile) && inFile != inAttribute))) {
        throw Failure("its Finder Info is kept twice and differs (store-finder-info-differs)");
    }
    for (const Old &old : m_olds) {
        const std::string what = difference(*old);
        if (!what.empty()) {
            throw Failure(fmt::format("it is kept in two forms already, which differ in {}; look at both, and remove "
                                      "the one that is not wanted",
                                      what));
        }
    }
    if (m_options.to == StoreKind::native) {
        check_native_free();
    }
}

void EntryConversion::check_names() const {
    if (m_shared && (to_directory() || m_forms.seen_in_directory())) {
        throw Failure("its companion in \"@eaDir\" would be that of another entry too (store-shared)");
    }
    if (m_options.to == StoreKind::apple_double && m_forms.beside().foreign) {
        throw Failure(
            fmt::format("{} stands in the way, which is no AppleDouble file", displayed("._" + m_forms.name())));
    }
    if (m_place.kind == StoreKind::apple_double && m_forms.beside().foreign) {
        throw Failure(
            fmt::format("{} is no AppleDouble file (store-malformed-double)", displayed("._" + m_forms.name())));
    }
}

// Of what the new form is made: of what is there of it, else of the first old one.
void EntryConversion::choose() {
    SeenAs *const first = m_olds.front().get();
    m_attributesOf = m_resourceOf = first;
    if (m_inPlace) {
        return choose_in_place();
    }
    const bool anyResource = !first->contents().finder_info().empty() || first->contents().fork_size() > 0;
    if (m_options.to == StoreKind::apple_double) {
        m_writesBeside = !m_forms.beside().is_there();
        m_attributesOf = m_resourceOf = m_writesBeside ? first : m_target.get();
    } else if (to_directory()) {
        m_attributesOf = m_forms.stream().holds_anything() ? m_target.get() : first;
        m_resourceOf = m_forms.resource().holds_anything() ? m_target.get() : first;
        m_writesStream = m_attributesOf == first && !first->attributes().empty();
        m_writesResource = m_resourceOf == first && anyResource;
        m_writesMetadata = m_options.to == StoreKind::file_ea && !m_forms.metadata() && anyResource;
    }
}

void EntryConversion::choose_in_place() {
    const StoreContents &contents = m_olds.front()->contents();
    const bool any = !contents.finder_info().empty();
    if (m_options.to == StoreKind::file_ea) {
        m_writesMetadata = any || !contents.comment().empty() || contents.afp_attributes() != 0;
    } else if (any && is_zero(m_forms.resource().bytes.finderInfo)) {
        m_writesResource = !m_forms.resource().holds_anything();
        m_writesFinderInfo = !m_writesResource;
    }
}

bool EntryConversion::has_work() const {
    return !m_inPlace || m_options.to == StoreKind::ea_directory || m_writesMetadata;
}

// In what an old form is not what the new one has, or would have; empty: in nothing. What one file of a store says is
// compared as a whole; a file of it that is not there any more says nothing.
std::string EntryConversion::difference(SeenAs &old) {
    const std::string &finderInfo = old.contents().finder_info(), &wanted = m_resourceOf->contents().finder_info();
    const bool whole = old.kind() == StoreKind::apple_double;
    const bool some = old.kind() == StoreKind::native;
    const bool stream = whole || some || m_forms.stream().holds_anything();
    const bool resource = whole || (!some && m_forms.resource().holds_anything());
    if (stream && &old != m_attributesOf && !same_attributes(old, *m_attributesOf, some)) {
        return "the attributes";
    }
    if (&old == m_resourceOf) {
        return {};
    }
    if ((resource || !finderInfo.empty()) && finderInfo != wanted) {
        return "the Finder Info";
    }
    if ((resource || old.contents().fork_size() > 0) && !same_forks(old, *m_resourceOf)) {
        return "the resource fork";
    }
    return {};
}

// What the entry has in its attributes already has to be what would come there.
void EntryConversion::check_native_free() {
    const StoreContents &there = m_target->contents(), &wanted = m_resourceOf->contents();
    for (const StoreContents::Attribute &one : m_attributesOf->attributes()) {
        const auto found = attribute_in(there.attributes(), one.name);
        if (found != there.attributes().end() && !same_attribute(*m_attributesOf, one, *m_target, *found)) {
            throw Failure(fmt::format("it has an attribute {} of its own, which differs", displayed(one.name)));
        }
    }
    if (!wanted.finder_info().empty() && !there.finder_info().empty() && wanted.finder_info() != there.finder_info()) {
        throw Failure("it is kept in two forms already, which differ in the Finder Info");
    }
    if (wanted.fork_size() > 0 && there.fork_size() > 0 && !same_forks(*m_resourceOf, *m_target)) {
        throw Failure("it is kept in two forms already, which differ in the resource fork");
    }
}

void EntryConversion::add_loss(LossClass cls, std::string detail) {
    const Loss loss{cls, std::move(detail)};
    if (std::ranges::find(m_result.losses, loss) == m_result.losses.end()) {
        m_result.losses.push_back(loss);
    }
}

// In the words of a comparison, which is going to be held against this.
void EntryConversion::foresee() {
    for (const Old &old : m_olds) {
        foresee(*old);
    }
    for (const FormFile *const file : {&m_forms.beside(), &m_forms.resource()}) {
        if (goes(*file)) {
            foresee_parts(*file);
        }
    }
    if (m_options.to == StoreKind::apple_double && m_forms.beside().name.empty()) {
        add_loss(LossClass::name_too_long, fmt::format("{} bytes are too many for the name of what is kept beside it",
                                                       m_forms.name().size() + 2));
    }
    if (m_options.to == StoreKind::native) {
        foresee_native();
    }
    if (m_writesMetadata) {
        on_trial([this](const std::string &trial) {
            if (is_refused_attribute(trial, kMetadataName, metadata_to_write())) {
                throw Failure("the volume does not take the metadata attribute");
            }
        });
    }
}

// What nobody may write is locked where a mode says so, and stays what it is.
bool EntryConversion::is_locked_by_mode_alone(SeenAs &old) {
    return (old.view.status().st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0 && !old.contents().afp_locked();
}

void EntryConversion::foresee(SeenAs &old) {
    const StoreContents &contents = old.contents();
    const bool attribute = m_options.to == StoreKind::file_ea;
    const std::string &comment = contents.comment();
    const int rest = contents.afp_attributes() & ~StoreContents::kAfpLockedBits;
    if (!comment.empty() && (!attribute || comment.size() > kLongestComment)) {
        add_loss(LossClass::mac_attributes, fmt::format("comment differs: {} and 0 bytes", comment.size()));
    }
    if (rest != 0 && !attribute) {
        add_loss(LossClass::mac_attributes, fmt::format("AFP attributes differ: 0x{:04x} and 0x0000", rest));
    }
    const VLIBCStat &status = old.view.status();
    if (!is_locked_by_mode_alone(old) && is_locked(status, old.kind(), contents.afp_locked()) &&
        !is_locked(status, m_options.to, attribute && contents.afp_locked())) {
        add_loss(LossClass::locked, "only the first is locked");
    }
}

// Entries of another program, but for dates and numbers that a server keeps for itself, and what is read as the
// comment or the AFP attributes.
void EntryConversion::foresee_parts(const FormFile &file) {
    constexpr uint32_t comment = 4, dates = 8, afp = 14, firstPrivate = 0x80000000;
    constexpr off_t readAsWhole = 741; // from which on the library looks for the two
    const bool read = file.file == StoreFile::resource && file.held.status.st_size >= readAsWhole;
    for (const StoreBytes::Part &part : file.bytes.parts) {
        const bool told = read && (part.id == comment || part.id == afp);
        if (part.length > 0 && part.id != dates && part.id < firstPrivate && !told) {
            add_loss(LossClass::mac_attributes,
                     fmt::format("{}: {} bytes of another program", entry_text(part.id), part.length));
        }
    }
}

void EntryConversion::foresee_native() {
    const uint64_t fork = m_resourceOf->contents().fork_size();
    struct stat shown {};
    const bool none = m_place.kind != StoreKind::native ||
                      (::stat((m_forms.itself() + "/rsrc").c_str(), &shown) != 0 && errno == ENOTDIR);
    if (fork > 0 && (none || fork > INT32_MAX)) {
        add_loss(LossClass::resource_fork, fmt::format("resource fork differs: {} and 0 bytes", fork));
    }
    on_trial([this](const std::string &trial) {
        for (const Loss &loss : write_native(trial, false)) {
            add_loss(loss.cls, loss.detail);
        }
    });
}

// Whether the volume takes an attribute is tried on a file without a name, which leaves nothing; where it knows no such
// files on one with a private name, but in a dry run: a kill between what the entry itself takes and what it does not
// would leave both forms, and nobody could tell whose the new one is.
void EntryConversion::on_trial(const std::function<void(const std::string &trial)> &attempt) const {
    const Descriptor trial = unnamed_there();
    if (trial.get() >= 0) {
        attempt(fmt::format("/proc/self/fd/{}", trial.get()));
    } else if (!m_options.dryRun) {
        const KeepTimes keep(m_place.directory);
        const PrivateFile named(m_place.directory, m_forms.name(), 0600);
        attempt(fmt::format("/proc/self/fd/{}", named.fd()));
    }
}

Descriptor EntryConversion::unnamed_there() const {
    const std::string directory = fmt::format("/proc/self/fd/{}", m_place.directory);
    return Descriptor(::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
}

// What a run would be refused at its first step. The old form goes after the new one is there, so that there has to be
// room for both; of one entry at a time.
void EntryConversion::check_room() const {
    constexpr char kRefused[] = "the new form of its store cannot be written";
    const bool resource = m_writesBeside || m_writesResource;
    int64_t bytes = resource ? static_cast<int64_t>(m_resourceOf->contents().fork_size()) : 0;
    if (m_writesBeside || m_writesStream) {
        for (const StoreContents::Attribute &one : m_attributesOf->contents().attributes()) {
            bytes += static_cast<int64_t>(one.size);
        }
    }
    const Descriptor trial = unnamed_there();
    const bool unknown = trial.get() < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == ENOENT);
    if (trial.get() < 0 && !unknown) {
        throw_errno_in(m_place.directory, kRefused);
    }
    if (trial.get() >= 0 && (bytes == 0 || ::fallocate(trial.get(), 0, 0, bytes) == 0)) {
        return;
    }
    if (!unknown && errno != EOPNOTSUPP) {
        throw_errno_in(m_place.directory, kRefused);
    }
    struct statvfs volume {};
    if (::fstatvfs(m_place.directory, &volume) != 0) {
        return;
    }
    const bool readOnly = (volume.f_flag & ST_RDONLY) != 0;
    if (readOnly || volume.f_bavail * volume.f_frsize < static_cast<uint64_t>(bytes)) {
        errno = readOnly ? EROFS : ENOSPC;
        throw_errno_in(m_place.directory, kRefused);
    }
}

std::vector<Loss> EntryConversion::unaccepted() const {
    std::vector<Loss> all;
    std::ranges::copy_if(m_result.losses, std::back_inserter(all), [this](const Loss &loss) {
        return loss.cls == LossClass::name_too_long || fails(loss, m_options.accepted);
    });
    return all;
}

// Sets what is not there yet; what the volume refuses is lost. `keep`: it is the entry itself.
std::vector<Loss> EntryConversion::write_native(const std::string &file, bool keep) {
    std::vector<Loss> refused;
    const StoreContents &there = m_target->contents();
    const auto set = [&](const std::string &name, const std::string &value, LossClass cls, std::string lost) {
        if (is_refused_attribute(file, name, value)) {
            refused.push_back({cls, std::move(lost)});
        } else if (keep) {
            m_madeAttributes.push_back(name);
        }
    };
    for (const StoreContents::Attribute &one : m_attributesOf->attributes()) {
        if (attribute_in(there.attributes(), one.name) != there.attributes().end()) {
            continue;
        }
        const LossClass cls = class_of_attribute(one.name, true);
        const std::string lost =
            only_first_text(cls == LossClass::stream ? "stream" : "attribute", displayed(one.name), one.size);
        if (one.size > kLargestNative || !may_be_native(one.name)) {
            refused.push_back({cls, lost});
        } else {
            set(one.name, m_attributesOf->contents().value(one), cls, lost);
        }
    }
    const StoreContents &resource = m_resourceOf->contents();
    if (!resource.finder_info().empty() && there.finder_info().empty()) {
        set(kFinderInfoName, resource.finder_info(), LossClass::finder_info, "Finder Info differs");
    }
    const bool fork = m_place.kind == StoreKind::native && resource.fork_size() > 0 &&
                      resource.fork_size() <= INT32_MAX && there.fork_size() == 0;
    if (fork && keep) { // a file without a name shows none
        set(kResourceForkName, resource.fork(), LossClass::resource_fork,
            fmt::format("resource fork differs: {} and 0 bytes", resource.fork_size()));
    }
    return refused;
}

// Whether the old form is in it, or some of it.
bool EntryConversion::goes(const FormFile &file) const {
    return file.is_there() && (file.inStore ? !to_directory() : m_options.to != StoreKind::apple_double);
}

// What both say of the entry, held against each other: as a volume of the one kind has it and as one of the other has.
void EntryConversion::verify() {
    m_forms.check_still();
    const Old fresh = seen_as(m_options.to, false);
    for (const Old &old : m_olds) {
        Findings findings{.options = {.data = true, .rest = true}};
        compare_attributes(old->view, fresh->view, findings);
        if (!is_locked_by_mode_alone(*old)) {
            compare_locks(old->view, fresh->view, findings);
        }
        for (const Loss &loss : findings.losses) {
            if (std::ranges::find(m_result.losses, loss) == m_result.losses.end()) {
                throw Failure(fmt::format("the new form does not read as the old one: {}", loss.detail));
            }
        }
    }
    for (const Made &made : m_made) { // and that is what was read
        if (!is_still(m_forms.directory_of(*made.file), made.file->name, made.status)) {
            throw Failure("somebody has put something else in place of the new form");
        }
    }
}

void EntryConversion::convert() {
    const KeepTimes keep(m_place.directory);
    try {
        m_note.write(form_to_make());
        write_all();
        verify();
        if (!m_note.remove()) { // from here on the old form may be less than whole
            throw_errno("the note of its conversion cannot be removed");
        }
        remove_old();
    } catch (const Failure &failure) {
        if (m_removing) {
            throw Failure(
                fmt::format("the new form is there, and the old one could not be removed: {}", failure.what()));
        }
        undo();
        undo_noted();
        throw;
    }
}

// Before anything is read or made: what is to go, or to be replaced, is nobody else's for a moment.
void EntryConversion::claim_all() {
    const bool mayGetFinderInfo = m_options.to == StoreKind::ea_directory && m_forms.metadata();
    for (FormFile *const file : {&m_forms.beside(), &m_forms.stream(), &m_forms.resource()}) {
        const bool replaced = !file->holds_anything() || (mayGetFinderInfo && file == &m_forms.resource());
        if (file->is_there() && (goes(*file) || replaced)) {
            m_forms.claim(*file);
        }
    }
}

void EntryConversion::write_all() {
    if (m_writesStream || m_writesResource) {
        m_madeStores = m_forms.directory_of(m_forms.stream()) < 0;
        m_forms.make_stores();
    }
    const std::pair<bool, FormFile *> files[] = {{m_writesBeside, &m_forms.beside()},
                                                 {m_writesStream, &m_forms.stream()},
                                                 {m_writesResource, &m_forms.resource()}};
    for (const auto &[writes, file] : files) {
        if (writes) {
            write_file(*file);
        }
    }
    if (m_writesFinderInfo) {
        write_finder_info();
    }
    if (m_writesMetadata) {
        write_metadata();
    }
    if (m_options.to == StoreKind::native) {
        const std::vector<Loss> refused = write_native(m_forms.itself(), true);
        for (const Loss &loss : refused) {
            add_loss(loss.cls, loss.detail);
        }
        if (!unaccepted().empty()) {
            throw Failure("the new form cannot hold all of it");
        }
    }
}

void EntryConversion::write_file(FormFile &file) {
    SeenAs &fork = *m_resourceOf;
    const bool resource = file.file != StoreFile::stream;
    FormContent content{.attributesFrom = &m_attributesOf->contents()};
    if (file.file != StoreFile::resource) {
        content.attributes = m_attributesOf->attributes();
    }
    if (resource) {
        content.forkFrom = &fork.contents();
        content.forkSize = fork.contents().fork_size();
        content.forkAtOnce = fork.kind() == StoreKind::native;
        content.finderInfo = fork.contents().finder_info();
    }
    const int directory = m_forms.directory_of(file);
    PrivateFile copy(directory, file.name, 0600);
    write_form(content, file.file, copy.fd());
    const FormFile *likeness = nullptr; // whose owner and rights it gets
    for (const FormFile *const old : {&m_forms.beside(), &m_forms.resource(), &m_forms.stream()}) {
        likeness = old->is_there() ? old : likeness;
    }
    if (likeness != nullptr) {
        take_properties_of_ours(likeness->held.file.get(), copy.fd());
    } else {
        take_rights_of_entry(m_forms.status(), copy.fd());
    }
    struct stat made {};
    if (::fstat(copy.fd(), &made) != 0) {
        throw_errno("the new form of its store cannot be looked at");
    }
    const bool empty = file.is_there(); // which holds nothing
    if (empty) {
        m_forms.check_claimed(file);
    }
    copy.put_in_place(empty);
    m_made.push_back({&file, made});
    if (!file.inStore) { // hidden, where the volume can
        const Descriptor hidden(VEXOEAOpen(1, m_forms.path().c_str(), "VexoEAStream", O_RDONLY, 1));
    }
}

// On a copy of the resource file, which keeps all else that is in it. Read as either kind it says the same then, so
// that it stays where the conversion fails later on.
void EntryConversion::write_finder_info() {
    FormFile &file = m_forms.resource();
    PrivateFile copy(m_forms.directory_of(file), file.name, 0600);
    copy.fill_from(file.held.file.get());
    put_finder_info(copy.fd(), m_resourceOf->contents().finder_info());
    take_properties_of_ours(file.held.file.get(), copy.fd());
    m_forms.check_claimed(file);
    copy.put_in_place(true);
}

std::string EntryConversion::metadata_to_write() const {
    const StoreContents &contents = m_resourceOf->contents();
    const std::string &comment = contents.comment();
    return metadata_value(contents.finder_info(), comment.size() <= kLongestComment ? comment : std::string(),
                          contents.afp_attributes());
}

void EntryConversion::write_metadata() {
    m_forms.check_still();
    create_metadata(m_forms.itself(), metadata_to_write());
    m_madeMetadata = true;
}

NewForm EntryConversion::form_to_make() const {
    NewForm form{.beside = m_writesBeside,
                 .stream = m_writesStream,
                 .resource = m_writesResource,
                 .stores = (m_writesStream || m_writesResource) && m_forms.directory_of(m_forms.stream()) < 0,
                 .metadata = m_writesMetadata};
    if (m_options.to == StoreKind::native) {
        const StoreContents &there = m_target->contents();
        for (const StoreContents::Attribute &one : m_attributesOf->attributes()) {
            if (attribute_in(there.attributes(), one.name) == there.attributes().end()) {
                form.attributes.insert(one.name);
            }
        }
        if (there.finder_info().empty()) {
            form.attributes.insert(kFinderInfoName);
        }
        if (there.fork_size() == 0) {
            form.attributes.insert(kResourceForkName);
        }
    }
    return form;
}

// What a killed run has made of the new form, once it was found to be what is in the old one, which is whole.
void EntryConversion::undo_noted() {
    if (!m_note.is_there()) {
        return;
    }
    const NewForm &made = m_note.form();
    const KeepTimes keep(m_place.directory);
    const bool metadata = made.metadata && m_forms.metadata() && m_options.to == StoreKind::file_ea;
    m_olds.clear(); // with their locks
    m_target.reset();
    try {
        const std::pair<bool, FormFile *> files[] = {
            {made.beside, &m_forms.beside()}, {made.stream, &m_forms.stream()}, {made.resource, &m_forms.resource()}};
        for (const auto &[one, file] : files) {
            if (one && file->holds_anything()) {
                m_forms.claim(*file);
                m_forms.remove(*file);
            }
            if (one && m_forms.directory_of(*file) >= 0) {
                clear_unfinished(m_forms.directory_of(*file), file->name);
            }
        }
        if (metadata) {
            remove_metadata(m_forms.itself(), *m_forms.metadata());
        }
        for (const std::string &name : made.attributes) {
            const auto size = native_size(m_forms.itself(), name);
            if (size && (*size > 0 || name != kResourceForkName)) {
                remove_native(m_forms.itself(), name);
            }
        }
    } catch (const Failure &) { // somebody else is at work on it: the next run
        return;
    }
    if (made.stores) {
        (void)::unlinkat(m_place.directory, "@eaDir", AT_REMOVEDIR);
    }
    (void)m_note.remove();
}

void EntryConversion::undo() {
    for (const Made &made : m_made) {
        const int directory = m_forms.directory_of(*made.file);
        if (is_still(directory, made.file->name, made.status)) {
            (void)::unlinkat(directory, made.file->name.c_str(), 0);
        }
    }
    if (m_madeMetadata) {
        drop_metadata(m_forms.itself());
    }
    for (const std::string &name : m_madeAttributes) {
        try {
            remove_native(m_forms.itself(), name);
        } catch (const Failure &) { // it is there twice then, and the next run finds both the same
        }
    }
    if (m_madeStores) {
        (void)::unlinkat(m_place.directory, "@eaDir", AT_REMOVEDIR);
    }
}

void EntryConversion::remove_old() {
    const bool native = m_options.to != StoreKind::native && m_forms.seen_native();
    std::vector<std::string> attributes = m_forms.native_names();
    for (const Old &old : m_olds) {
        if (old->kind() == StoreKind::native && old->contents().fork_size() > 0) {
            attributes.emplace_back(kResourceForkName);
        }
    }
    m_olds.clear(); // with their locks
    m_target.reset();
    m_removing = true;
    for (FormFile *const file : {&m_forms.beside(), &m_forms.stream(), &m_forms.resource()}) {
        if (goes(*file)) {
            m_forms.remove(*file);
        }
    }
    if (native) {
        m_forms.check_still();
        for (const std::string &name : attributes) {
            remove_native(m_forms.itself(), name);
        }
    }
    // The last one: with it the others are of the kind that they were read as.
    if (m_options.to != StoreKind::file_ea && m_forms.metadata()) {
        m_forms.check_still();
        remove_metadata(m_forms.itself(), *m_forms.metadata());
    }
}

} // namespace engine
