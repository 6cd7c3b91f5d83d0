#pragma once
// A look at an XML property list before libplist parses it. libplist's XML
// reader is iterative, but the tree it builds is freed recursively, one stack
// frame per level, also when the reader stops at an error half way; so
// megabytes of nested arrays overflow the stack. It also copies element text
// with C string functions, so a NUL byte silently shortens a key or turns the
// rest of a string into zeros.
//
// The scan follows libplist's own reading, step for step: the element tags
// with their quoted attribute values, processing instructions, comments, the
// DOCTYPE with its internal subset, and the text of scalar elements with its
// comments and CDATA sections. It counts the containers libplist would hold
// open, stops where libplist stops (an error, or the end of the top-level
// container), and never counts a closing tag that libplist would not act on,
// so it cannot be led to count fewer levels than libplist builds. It runs in
// one pass over the text and keeps only a stack of open element kinds.
#include <cstddef>
#include <string_view>

namespace fennick::detail {

/// Why the XML property list `text` must not reach libplist, or nullptr when
/// it may: more than `maxDepth` containers open at once, or a NUL byte. The
/// answer is a fixed text that names the hazard and never quotes the input.
const char* xmlPropertyListHazard(std::string_view text, std::size_t maxDepth);

}  // namespace fennick::detail
