// fennick encode: transcodes standard input between raw bytes, hexadecimal,
// Base64 and Base32.
#include "Command.h"

#include <fennick/Fennick.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

namespace fennick::tool {

namespace {

struct EncodingName {
  std::string_view name;
  OVDataEncoding encoding;
};
constexpr EncodingName kEncodings[] = {
    {"raw", OVDataEncodingRaw},
    {"base64", OVDataEncodingBase64},
    {"base32", OVDataEncodingBase32},
    {"hex", OVDataEncodingHex},
};

std::optional<OVDataEncoding> encodingNamed(std::string_view name) {
  for (const EncodingName& entry : kEncodings)
    if (entry.name == name) return entry.encoding;
  return std::nullopt;
}

bool readAll(int fd, std::vector<std::uint8_t>& bytes) {
  std::uint8_t buffer[1 << 16];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    bytes.insert(bytes.end(), buffer, buffer + n);
  }
}

// Text typed or piped in usually ends with a line break; it is not part of
// the encoded text.
void dropTrailingLineBreaks(std::vector<std::uint8_t>& text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
}

// The library reads hexadecimal leniently (a bad digit reads as zero); text
// handed to the tool is checked first so that a typo is not silently decoded.
bool isStrictHex(const std::vector<std::uint8_t>& text) {
  return text.size() % 2 == 0 && std::all_of(text.begin(), text.end(), [](std::uint8_t c) { return std::isxdigit(c); });
}

int usageError(std::string_view message) {
  fail("encode", message);
  return kExitUsage;
}

int runEncode(const Arguments& arguments) {
  const std::string fromName = arguments.value("from").value_or("raw");
  const std::optional<std::string> toName = arguments.value("to");
  if (!toName) return usageError("--to is required (hex, base64, base32 or raw)");
  const std::optional<OVDataEncoding> from = encodingNamed(fromName);
  const std::optional<OVDataEncoding> to = encodingNamed(*toName);
  if (!from) return usageError("unknown encoding '" + fromName + "' (hex, base64, base32 or raw)");
  if (!to) return usageError("unknown encoding '" + *toName + "' (hex, base64, base32 or raw)");

  std::vector<std::uint8_t> input;
  if (!readAll(STDIN_FILENO, input)) return fail("encode", "could not read standard input");
  if (*from != OVDataEncodingRaw) dropTrailingLineBreaks(input);
  if (*from == OVDataEncodingHex && !isStrictHex(input))
    return fail("encode", "standard input is not hexadecimal text (pairs of 0-9, a-f)");

  const Ref<Data> output = Data::dataWithBytes(std::move(input))->transformFromEncoding_toEncoding(*from, *to);
  if (!output) return fail("encode", "standard input is not valid " + fromName + " text");
  std::fwrite(output->bytes(), 1, output->length(), stdout);
  if (*to != OVDataEncodingRaw) std::fputc('\n', stdout);
  return std::fflush(stdout) == 0 ? kExitOK : fail("encode", "could not write standard output");
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "encode",
                      .summary = "transcode standard input between raw, hex, Base64 and Base32",
                      .usage = "usage: fennick encode [--from ENCODING] --to ENCODING\n\n"
                               "Reads standard input in one encoding and writes it to standard output\n"
                               "in another. ENCODING is raw (the bytes themselves), hex (two lower-case\n"
                               "digits per byte), base64 or base32 (RFC 4648, with padding). --from\n"
                               "defaults to raw. Text input may end with a line break; text output ends\n"
                               "with one.\n\n"
                               "  --from ENCODING   how standard input is encoded\n"
                               "  --to ENCODING     how to write it\n\n"
                               "example: printf hello | fennick encode --to base64\n",
                      .options = {{.longName = "from", .takesValue = true}, {.longName = "to", .takesValue = true}},
                      .maxArguments = 0,
                      .run = runEncode});

}  // namespace fennick::tool
