#include "platform/base/uuid.h"

#include <openssl/evp.h>
#include <sys/random.h>

#include <cctype>
#include <cerrno>

namespace platform {

namespace {

constexpr std::size_t BYTES = 16;
constexpr std::size_t TEXT_LENGTH = 36;

bool dash_at(std::size_t position) {
  return position == 8 || position == 13 || position == 18 || position == 23;
}

unsigned hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return static_cast<unsigned>(digit - '0');
  return static_cast<unsigned>(std::tolower(static_cast<unsigned char>(digit)) - 'a') + 10;
}

std::string to_text(const unsigned char* bytes, bool upper) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string text;
  text.reserve(TEXT_LENGTH);
  for (std::size_t i = 0; i < BYTES; ++i) {
    if (dash_at(text.size())) text += '-';
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

void set_version(unsigned char* bytes, unsigned version) {
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | (version << 4));
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
}

}  // namespace

bool uuid_string(std::string& uuid, bool upper) {
  unsigned char bytes[BYTES];
  ssize_t got;
  do {
    got = getrandom(bytes, sizeof bytes, 0);
  } while (got == -1 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof bytes)) return false;
  set_version(bytes, 4);
  uuid = to_text(bytes, upper);
  return true;
}

const std::string& zero_uuid() {
  static const std::string text = "00000000-0000-0000-0000-000000000000";
  return text;
}

bool is_uuid(const std::string& text) {
  if (text.size() != TEXT_LENGTH) return false;
  for (std::size_t i = 0; i < TEXT_LENGTH; ++i) {
    if (dash_at(i) ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

bool uuid_string_to_binary(const std::string& text, std::string& binary) {
  if (!is_uuid(text)) return false;
  std::string bytes;
  bytes.reserve(BYTES);
  for (std::size_t i = 0; i < TEXT_LENGTH; i += 2) {
    if (dash_at(i)) ++i;
    bytes += static_cast<char>(hex_value(text[i]) << 4 | hex_value(text[i + 1]));
  }
  binary = std::move(bytes);
  return true;
}

bool uuid_binary_to_string(const void* data, std::size_t size, std::string& text) {
  if (data == nullptr || size != BYTES) return false;
  text = to_text(static_cast<const unsigned char*>(data), false);
  return true;
}

std::string uuid_v5(const std::string& ns_text, const std::string& name) {
  std::string input;
  if (!uuid_string_to_binary(ns_text, input)) return "";
  input += name;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  if (EVP_Digest(input.data(), input.size(), digest, &size, EVP_sha1(), nullptr) != 1 || size < BYTES)
    return "";
  set_version(digest, 5);
  return to_text(digest, false);
}

}  // namespace platform
