#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace tidalcrest::sync {

/// Running SHA-256. A copy goes on from the same point by itself. Not safe for concurrent use.
class Sha256 {
 public:
  Sha256();
  Sha256(const Sha256& other);
  Sha256& operator=(const Sha256& other);
  Sha256(Sha256&&) noexcept = default;
  Sha256& operator=(Sha256&&) noexcept = default;
  void update(std::string_view bytes);
  /// Lower-case hexadecimal digest of what was fed so far; the object can be fed further.
  std::string hexdigest() const;
  void reset();

 private:
  struct FreeContext {
    void operator()(void* context) const noexcept;
  };
  std::unique_ptr<void, FreeContext> _context;
};

/// Lower-case hexadecimal SHA-256 of `bytes`.
std::string sha256_hex(std::string_view bytes);
/// Whether a text has the form that `sha256_hex` gives.
bool is_sha256_text(std::string_view text) noexcept;

}  // namespace tidalcrest::sync
