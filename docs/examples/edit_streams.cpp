// Shows and changes what belongs to a file beside its data:
//
//     edit_streams FILE list
//     edit_streams FILE get NAME | set NAME VALUE | remove NAME
//     edit_streams FILE fork | fork-write OFFSET TEXT | fork-cut LENGTH
//
// Written with exceptions: value() throws what went wrong.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>
#include <vexofileop/vexofileop.hpp>

namespace {

using vexofileop::Access;
using vexofileop::Attributes;
using vexofileop::ResourceFork;

int edit(const std::filesystem::path &file, const std::vector<std::string> &words) {
    const std::string &command = words[0];
    const auto attributes = Attributes::of(file).value();
    if (command == "list" && words.size() == 1) {
        for (const std::string &name : attributes.names().value()) {
            std::cout << name << ": " << attributes.get(name).value().size() << " bytes\n";
        }
        const auto fork = ResourceFork::open(file, Access::read);
        if (fork) {
            std::cout << "resource fork: " << fork->size() << " bytes\n";
        } else if (!fork.error().is_missing()) {
            throw fork.error();
        }
    } else if (command == "get" && words.size() == 2) {
        std::cout << attributes.get(words[1]).value() << "\n";
    } else if (command == "set" && words.size() == 3) {
        attributes.set(words[1], words[2]).value();
    } else if (command == "remove" && words.size() == 2) {
        if (!attributes.remove(words[1]).value()) {
            std::cerr << "there is no " << words[1] << "\n";
            return 1;
        }
    } else if (command == "fork" && words.size() == 1) {
        std::cout << ResourceFork::open(file, Access::read).value().read_all().value() << "\n";
    } else if (command == "fork-write" && words.size() == 3) {
        ResourceFork fork = ResourceFork::open(file, Access::create).value();
        fork.seek(std::stoull(words[1]));
        fork.write(words[2]).value();
        fork.sync().value();
    } else if (command == "fork-cut" && words.size() == 2) {
        ResourceFork::open(file, Access::write).value().truncate(std::stoull(words[1])).value();
    } else {
        std::cerr << "not understood: " << command << "\n";
        return 2;
    }
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::cerr << "edit_streams FILE COMMAND...\n";
        return 2;
    }
    try {
        return edit(argv[1], std::vector<std::string>(argv + 2, argv + argc));
    } catch (const vexofileop::Error &error) {
        std::cerr << error.what() << "\n";
        return 1;
    } catch (const std::exception &error) { // a number that is none
        std::cerr << "not understood: " << error.what() << "\n";
        return 2;
    }
}
