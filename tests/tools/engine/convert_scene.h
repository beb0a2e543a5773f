// Stores in a form of one kind of volume, and what a conversion into another says of them.
#pragma once

#include "tests/kit/native_double.h"
#include "tests/tools/engine/store_scene.h"
#include "tools/engine/store/store.h"
#include "tools/engine/stores/conversion.h"

#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace convert_scene {

using engine::Conversion;
using engine::StoreKind;

class Converted : public engine::ConversionWatcher {
  public:
    bool stopped() const override { return false; }
    void store(const Conversion &conversion) override { all.push_back(conversion); }
    void trouble(const std::string &path, const std::string &reason) override {
        troubles.push_back(path + ": " + reason);
    }
    int count(Conversion::State state) const {
        return static_cast<int>(
            std::count_if(all.begin(), all.end(), [&](const Conversion &one) { return one.state == state; }));
    }
    int converted() const { return count(Conversion::State::converted); }
    int left() const { return count(Conversion::State::left) + static_cast<int>(troubles.size()); }
    // For messages, and the first reason.
    std::string reasons() const {
        std::string text;
        for (const Conversion &one : all) {
            text += one.reason;
            for (const engine::Loss &loss : one.losses) {
                text += std::string("; ") + engine::loss_row(loss.cls).name + ": " + loss.detail;
            }
            text += one.reason.empty() && one.losses.empty() ? "" : "\n";
        }
        for (const std::string &one : troubles) {
            text += one + "\n";
        }
        return text;
    }
    std::vector<Conversion> all;
    std::vector<std::string> troubles;
    engine::ConversionTotals totals;
};

// A type of volume that keeps stores so.
inline int type_of(StoreKind kind) {
    return kind == StoreKind::apple_double   ? 5
           : kind == StoreKind::ea_directory ? 1
           : kind == StoreKind::file_ea      ? 2
                                             : 7;
}

struct ConvertScene : store_scene::StoreScene {
    explicit ConvertScene(StoreKind kind) : StoreScene(type_of(kind)) { kit::NativeDouble::setVolume(scratch.path()); }
    ~ConvertScene() { kit::NativeDouble::reset(); }

    // Says from now on that the volume is of that kind.
    void be(StoreKind kind) const {
        ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=" + std::to_string(type_of(kind))).c_str(), 1);
    }
    std::string beside(const std::string &name) const { return *this / ("._" + name); }

    static stream::Attributes attributes(const std::string &name) {
        return {{"user.long", std::string(3000, name.front())}, {"user.note", "of " + name}};
    }
    static std::string finder_info() { return "TEXTttxt"; }

    // All that a store can have, of a file or directory that is there.
    void store_of(StoreKind kind, const std::string &name, const std::string &fork = "a fork") const {
        const auto forkSize = static_cast<uint32_t>(fork.size());
        if (kind == StoreKind::apple_double) {
            kit::writeFile(beside(name), stream::bytes(attributes(name), forkSize, finder_info()) + fork);
        } else if (kind == StoreKind::native) {
            kit::setAttribute(*this / name, "com.apple.FinderInfo", finder_info() + std::string(24, '\0'));
            for (const auto &[one, value] : attributes(name)) {
                kit::setAttribute(*this / name, one.c_str(), value);
            }
        } else {
            make_stores();
            kit::writeFile(stream(name), stream::bytes(attributes(name)));
            kit::writeFile(resource(name), store_scene::resource_bytes(fork, finder_info()));
        }
        if (kind == StoreKind::file_ea) {
            kit::setAttribute(*this / name, engine::kMetadataName, metadata());
        }
    }
    static std::string metadata() { return adouble_bytes::metadata().replace(122, 8, finder_info()); }

    void with_store(StoreKind kind, const std::string &name, const std::string &fork = "a fork") const {
        file(name);
        store_of(kind, name, fork);
    }

    // What the tool reads of it on a volume of that kind; and whether that is all of it.
    engine::Store::Metadata read(StoreKind kind, const std::string &name) const {
        be(kind);
        return engine::Store(*this / name).metadata();
    }
    bool is_whole(StoreKind kind, const std::string &name, const std::string &fork = "a fork") const {
        engine::Store::Metadata all = read(kind, name);
        if (kind == StoreKind::native) { // where what other volumes keep in attributes is an attribute like others
            all.attributes.erase(engine::kMetadataName);
            all.attributes.erase("user.vexo.filea.flushtime");
        }
        std::map<std::string, std::string> wanted;
        for (const auto &[one, value] : attributes(name)) {
            wanted[one] = value;
        }
        return all.finderInfo.substr(0, 8) == finder_info() && all.fork == fork && all.attributes == wanted;
    }
    // Whether anything of a form is there.
    bool has(StoreKind kind, const std::string &name) const {
        switch (kind) {
        case StoreKind::apple_double:
            return kit::exists(beside(name));
        case StoreKind::native:
            return !kit::attribute(*this / name, "com.apple.FinderInfo").empty();
        case StoreKind::file_ea:
            return !kit::attribute(*this / name, engine::kMetadataName).empty();
        default:
            return kit::exists(stream(name)) || kit::exists(resource(name));
        }
    }

    Converted convert(StoreKind to, const engine::LossSet &accepted = {}, bool dryRun = false,
                      const std::string &name = {}) const {
        Converted told;
        engine::convert_stores(engine::HeldEntry(name.empty() ? root() : *this / name),
                               {.to = to, .survey = {.recursive = true}, .dryRun = dryRun, .accepted = accepted}, told,
                               told.totals);
        return told;
    }
    Converted foreseen(StoreKind to, const engine::LossSet &accepted = {}) const { return convert(to, accepted, true); }
};

} // namespace convert_scene
