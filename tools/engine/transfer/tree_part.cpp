#include "tools/engine/transfer/tree_part.h"

#include "tools/engine/workers/record.h"

namespace engine {

std::string TreePart::text() const {
    RecordWriter writer;
    writer.number(number).number(request.number).text(request.top).number(request.contents).number(request.device);
    writer.number(request.sourceType).number(request.destinationType).number(request.keepsMac);
    writer.number(request.filesBefore).number(request.directoriesBefore);
    writer.text(source).text(destination).number(made).number(hasStore).number(oneByOne);
    for (const std::string &name : names) {
        writer.text(name);
    }
    return writer.bytes();
}

TreePart TreePart::from(std::string_view text) {
    RecordReader reader(text);
    TreePart part;
    part.number = reader.number<uint64_t>();
    part.request.number = reader.number<uint64_t>();
    part.request.top = reader.text();
    part.request.contents = reader.number<bool>();
    part.request.device = reader.number<dev_t>();
    part.request.sourceType = reader.number<int>();
    part.request.destinationType = reader.number<int>();
    part.request.keepsMac = reader.number<bool>();
    part.request.filesBefore = reader.number<bool>();
    part.request.directoriesBefore = reader.number<bool>();
    part.source = reader.text();
    part.destination = reader.text();
    part.made = reader.number<bool>();
    part.hasStore = reader.number<bool>();
    part.oneByOne = reader.number<bool>();
    while (!reader.is_at_end()) {
        part.names.push_back(reader.text());
    }
    return part;
}

} // namespace engine
