// The conversion of what is kept for one entry.
#pragma once

#include "tools/engine/compare/entry_view.h"
#include "tools/engine/compare/side.h"
#include "tools/engine/stores/conversion.h"
#include "tools/engine/stores/conversion_note.h"
#include "tools/engine/stores/entry_forms.h"
#include "tools/engine/stores/form_writer.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace engine {

// The entry as a volume of a kind has it, whatever kind its own is of.
struct SeenAs {
    SeenAs(int directory, const std::string &name, const VolumeFacts &facts);
    StoreKind kind() const { return side.volume.store; }
    const StoreContents &contents() { return view.contents(); }
    // What of its attributes is the store's.
    std::vector<StoreContents::Attribute> attributes();

    Side side; // before the view, which is of it
    EntryView view;
};

class EntryConversion {
  public:
    // `shared`: another entry has a companion of the same name.
    EntryConversion(const StorePlace &place, const ConversionOptions &options, EntryForms &forms, bool shared)
        : m_place(place), m_options(options), m_forms(forms), m_shared(shared),
          m_note(place.directory, forms.name(), forms.status().st_ino, options.to) {}

    // Whether there is anything of another form than that.
    static bool has_old(const EntryForms &forms, StoreKind to);

    // Nothing: there is nothing to do.
    std::optional<Conversion> run();

  private:
    std::optional<Conversion> attempt();
    using Old = std::unique_ptr<SeenAs>;
    struct Made {
        FormFile *file;
        struct stat status;
    };

    bool to_directory() const { return m_options.to == StoreKind::ea_directory || m_options.to == StoreKind::file_ea; }
    // `before` anything was done: what is read has to be what the forms hold open.
    Old seen_as(StoreKind kind, bool before = true) const;
    void look_at_both();
    void check_may_go();
    void check_names() const;
    void choose();
    void choose_in_place();
    bool has_work() const;
    std::string difference(SeenAs &old);
    void check_native_free();
    void foresee();
    static bool is_locked_by_mode_alone(SeenAs &old);
    void foresee(SeenAs &old);
    void foresee_parts(const FormFile &file);
    void foresee_native();
    Descriptor unnamed_there() const;
    void check_room() const;
    void on_trial(const std::function<void(const std::string &trial)> &attempt) const;
    void add_loss(LossClass cls, std::string detail);
    std::vector<Loss> unaccepted() const;

    void convert();
    void claim_all();
    void write_all();
    void write_file(FormFile &file);
    void write_finder_info();
    std::string metadata_to_write() const;
    void write_metadata();
    std::vector<Loss> write_native(const std::string &file, bool keep);
    void verify();
    NewForm form_to_make() const;
    void undo();
    void undo_noted();
    void remove_old();
    void remove_attributes();
    bool goes(const FormFile &file) const;

    const StorePlace &m_place;
    const ConversionOptions &m_options;
    EntryForms &m_forms;
    bool m_shared;
    ConversionNote m_note;
    Conversion m_result;

    std::vector<Old> m_olds;
    Old m_target;           // what is there of the new form before anything is done; null: nothing
    bool m_inPlace = false; // both forms are in "@eaDir", and differ by an attribute
    SeenAs *m_attributesOf = nullptr, *m_resourceOf = nullptr; // of which the new form is made, or is
    bool m_writesBeside = false, m_writesStream = false, m_writesResource = false;
    bool m_writesMetadata = false, m_writesFinderInfo = false;

    std::vector<Made> m_made;
    std::vector<std::string> m_madeAttributes;
    bool m_madeMetadata = false, m_madeStores = false, m_removing = false;
};

} // namespace engine
