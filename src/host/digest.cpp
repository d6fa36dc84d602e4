#include "host/digest.hpp"

#include <openssl/evp.h>

#include <new>

#include "host/text.hpp"

namespace tidalcrest::sync {
namespace {

EVP_MD_CTX* as_context(void* context) { return static_cast<EVP_MD_CTX*>(context); }

EVP_MD_CTX* new_context() {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  if (context == nullptr) throw std::bad_alloc();
  return context;
}

// Fetched once: looking the algorithm up again for every file costs more than hashing a small file.
const EVP_MD* algorithm() {
  static const EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return fetched != nullptr ? fetched : EVP_sha256();
}

}  // namespace

void Sha256::FreeContext::operator()(void* context) const noexcept { EVP_MD_CTX_free(as_context(context)); }

Sha256::Sha256() : _context(new_context()) { reset(); }

Sha256::Sha256(const Sha256& other) : _context(new_context()) { *this = other; }

Sha256& Sha256::operator=(const Sha256& other) {
  if (this == &other) return *this;
  if (EVP_MD_CTX_copy_ex(as_context(_context.get()), as_context(other._context.get())) != 1)
    throw std::bad_alloc();
  return *this;
}

void Sha256::reset() {
  if (EVP_DigestInit_ex(as_context(_context.get()), algorithm(), nullptr) != 1) throw std::bad_alloc();
}

void Sha256::update(std::string_view bytes) {
  EVP_DigestUpdate(as_context(_context.get()), bytes.data(), bytes.size());
}

std::string Sha256::hexdigest() const {
  const std::unique_ptr<void, FreeContext> copy(new_context());
  EVP_MD_CTX_copy_ex(as_context(copy.get()), as_context(_context.get()));
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_DigestFinal_ex(as_context(copy.get()), digest, &size);
  return text::hex({reinterpret_cast<const char*>(digest), size});
}

std::string sha256_hex(std::string_view bytes) {
  Sha256 hash;
  hash.update(bytes);
  return hash.hexdigest();
}

bool is_sha256_text(std::string_view text) noexcept {
  constexpr std::size_t digits = 64;
  return text.size() == digits && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

}  // namespace tidalcrest::sync
