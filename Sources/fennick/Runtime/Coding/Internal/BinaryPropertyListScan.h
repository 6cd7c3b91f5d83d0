#pragma once
// A look at a binary property list ("bplist00") before libplist parses it.
// libplist trusts the list's structure in ways that cost the whole process:
//   - it recurses once per level of nesting, both parsing and freeing, so a
//     list of arrays nested a few hundred thousand deep overflows the stack;
//   - it parses an object again for every reference to it, so a few hundred
//     bytes of arrays that each name the next one twice expand to billions of
//     nodes;
//   - it aborts the process on a dictionary key whose UTF-16 text holds U+0000
//     (its key accessor asserts that the length equals the C string length);
//   - it silently cuts an ASCII string short at a NUL byte, and silently drops
//     unpaired UTF-16 surrogates.
// The scan walks the object graph from the top object, iteratively and in time
// linear in the objects and references it reaches, reading every offset,
// count and reference the way libplist does and checking each against the
// input, and names the first such hazard. Lists the scan passes are safe to
// hand to libplist; lists it refuses are damaged or hostile.
#include <cstddef>
#include <string_view>

namespace fennick::detail {

/// Why the binary property list `bytes` must not reach libplist, or nullptr
/// when it may: containers nested more than `maxDepth` levels deep, a
/// reference cycle, offsets, counts or references outside the list, shared
/// objects that would make libplist allocate far more than the list's size, a
/// key that is not a string, a NUL byte in an ASCII string, a UTF-16 key
/// holding U+0000, or an unpaired UTF-16 surrogate. The answer is a fixed text that
/// names the hazard and never quotes the input.
const char* binaryPropertyListHazard(std::string_view bytes, std::size_t maxDepth);

}  // namespace fennick::detail
