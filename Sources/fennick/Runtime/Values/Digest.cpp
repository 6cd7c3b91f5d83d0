#include "fennick/Runtime/Values/Digest.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace fennick {

namespace {

const EVP_MD* algorithm(OVHashKind kind) {
  switch (kind) {
    case OVHashKindMD5: return EVP_md5();
    case OVHashKindSHA1: return EVP_sha1();
  }
  return nullptr;
}

[[noreturn]] void failed(const char* what) { throw std::runtime_error(std::string("libcrypto: ") + what); }

}  // namespace

struct Digest::Context {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  ~Context() { EVP_MD_CTX_free(context); }
};

Digest::Digest(OVHashKind kind) : kind_(kind), context_(std::make_unique<Context>()) {
  const EVP_MD* md = algorithm(kind);
  if (!md) throw std::invalid_argument("unsupported digest kind");
  if (!context_->context || EVP_DigestInit_ex(context_->context, md, nullptr) != 1) failed("digest set-up failed");
}

Digest::~Digest() = default;
Digest::Digest(Digest&&) noexcept = default;
Digest& Digest::operator=(Digest&&) noexcept = default;

std::size_t Digest::length(OVHashKind kind) noexcept {
  const EVP_MD* md = algorithm(kind);
  return md ? static_cast<std::size_t>(EVP_MD_get_size(md)) : 0;
}

std::vector<std::uint8_t> Digest::of(OVHashKind kind, std::span<const std::uint8_t> bytes) {
  const EVP_MD* md = algorithm(kind);
  if (!md) throw std::invalid_argument("unsupported digest kind");
  std::vector<std::uint8_t> digest(static_cast<std::size_t>(EVP_MD_get_size(md)));
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, md, nullptr) != 1) failed("digest failed");
  return digest;
}

void Digest::update(std::span<const std::uint8_t> bytes) {
  if (EVP_DigestUpdate(context_->context, bytes.data(), bytes.size()) != 1) failed("digest update failed");
}

std::vector<std::uint8_t> Digest::finish() {
  std::vector<std::uint8_t> digest(length(kind_));
  if (EVP_DigestFinal_ex(context_->context, digest.data(), nullptr) != 1 ||
      EVP_DigestInit_ex(context_->context, algorithm(kind_), nullptr) != 1)
    failed("digest final failed");
  return digest;
}

}  // namespace fennick
