#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "lmkit/foundation/Data.hpp"

namespace lmkit::digest {

/// A digest (or HMAC) fed a piece at a time, for inputs too large to hold in memory. Gives the
/// same bytes as md5Data, sha1Data, sha256Data, sha512Data and hmacDataUsingAlg over the whole.
class DigestStream {
  public:
    /// "md5", "sha1", "sha256" or "sha512"; with a key, the HMAC of that digest. nullptr for
    /// another name.
    static std::unique_ptr<DigestStream> make(std::string_view algorithm,
                                              const std::optional<Data>& hmacKey = std::nullopt);
    ~DigestStream();
    DigestStream(const DigestStream&) = delete;
    DigestStream& operator=(const DigestStream&) = delete;

    void update(const std::uint8_t* data, std::size_t size);
    /// The digest of everything given; the stream is spent afterwards.
    Data finish();

    struct State;

  private:
    explicit DigestStream(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

}  // namespace lmkit::digest
