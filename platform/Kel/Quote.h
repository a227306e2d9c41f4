// Kel::quoted: outside input, made safe to put in a message.
//
// Error messages name the input they refuse, and that input may be anything: a route file
// with terminal escape sequences in it, a token of ten megabytes, binary bytes. quoted()
// puts the text in single quotes with every byte outside printable ASCII (and the quote
// and backslash themselves) written as \xNN, \' or \\, and cuts it after `maxBytes` bytes
// of input, saying how long it was: 'abc' , 'a\x1b[31m' , 'xxxx...' (10485760 bytes).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Kel {

std::string quoted(std::string_view text, size_t maxBytes = 64);

}  // namespace Kel
