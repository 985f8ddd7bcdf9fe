#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

namespace lmkit::tool {

/// Decompresses what `input` holds as gzip -d does, a buffer at a time: every gzip member one
/// after another (what `cat a.gz b.gz` makes), or one zlib stream; zero bytes after the last
/// member are padding. Each piece of output goes to `sink` as it is produced. Throws Failure when
/// the input is truncated, corrupt, followed by other data, when it cannot be read (`name` says
/// which), or as soon as the output would exceed `maxBytes`. An empty input gives no output.
void gunzipStream(std::FILE* input, const std::string& name, std::uint64_t maxBytes,
                  const std::function<void(const std::uint8_t* data, std::size_t size)>& sink);

}  // namespace lmkit::tool
