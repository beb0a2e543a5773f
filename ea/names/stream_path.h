// The path of a file's stream, for callers that may have the file open.
#pragma once

#include "support/file_ref.h"
#include "support/path_buffer.h"

namespace vexo {

// VEXOEAPath of a stream in "@eaDir" in the current layout, with `room` as the length of the buffer. false: it cannot
// be built; the last error says why.
[[nodiscard]] bool make_stream_path(const FileRef &file, const char *stream, PathBuffer &out,
                                    int room = PathBuffer::kUsable);

} // namespace vexo
