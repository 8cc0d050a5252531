#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace cloud {

// How long a partial download and its record are kept for a later download to take up.
constexpr std::int64_t kPartialKeepSeconds = 7 * 24 * 3600;

// Removes from a user's cache directory the partial downloads ("*.part") and resume records
// ("*.resume") last written more than `maxAgeSeconds` before `now` (seconds since 1970), with the
// partial file an old record names; a record that a download holds is left alone. Returns how
// many files were removed.
std::size_t removeStalePartials(const std::string& cacheDirectory, std::int64_t now,
                                std::int64_t maxAgeSeconds = kPartialKeepSeconds);

}  // namespace cloud
