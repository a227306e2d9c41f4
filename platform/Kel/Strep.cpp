#include "Kel/Strep.h"

#include <fmt/format.h>

namespace Kel {

void StrepWriter::putDouble(double v) {
  fmt::format_to(std::back_inserter(out_), "{}", v);
}

void StrepWriter::putQuoted(std::string_view bytes) {
  out_.push_back('\'');
  for (unsigned char c : bytes) {
    switch (c) {
      case '\\': out_.append("\\\\"); break;
      case '\'': out_.append("\\'"); break;
      case '\n': out_.append("\\n"); break;
      case '\r': out_.append("\\r"); break;
      case '\t': out_.append("\\t"); break;
      default:
        if (c < 0x20 || c >= 0x7f) {
          fmt::format_to(std::back_inserter(out_), "\\x{:02x}", c);
        } else {
          out_.push_back(static_cast<char>(c));
        }
    }
  }
  out_.push_back('\'');
}

void StrepReader::failAt(size_t pos, std::string_view expected) const {
  constexpr size_t kShown = 48;
  std::string_view found = text_.substr(std::min(pos, text_.size()));
  std::string shown = found.empty() ? std::string("the end of the text")
                                    : fmt::format("\"{}{}\"", found.substr(0, kShown),
                                                  found.size() > kShown ? "..." : "");
  throw ParseError(fmt::format("expected {} at offset {}, found {}", expected, pos, shown));
}

void StrepReader::fail(std::string_view expected) const { failAt(pos_, expected); }

void StrepReader::expect(std::string_view literal) {
  if (!consume(literal)) {
    fail(fmt::format("\"{}\"", literal));
  }
}

bool StrepReader::consume(std::string_view literal) {
  if (text_.substr(pos_, literal.size()) != literal) {
    return false;
  }
  pos_ += literal.size();
  return true;
}

void StrepReader::expectEnd() {
  if (!atEnd()) {
    fail("the end of the text");
  }
}

uint64_t StrepReader::readUnsigned() {
  uint64_t v = 0;
  auto begin = text_.data() + pos_;
  auto end = text_.data() + text_.size();
  if (begin == end || *begin < '0' || *begin > '9') {
    fail("an unsigned number");
  }
  if (*begin == '0' && begin + 1 != end && begin[1] >= '0' && begin[1] <= '9') {
    fail("a number without leading zeros");
  }
  auto r = std::from_chars(begin, end, v);
  if (r.ec != std::errc()) {
    fail("an unsigned number below 2^64");
  }
  pos_ += static_cast<size_t>(r.ptr - begin);
  return v;
}

int64_t StrepReader::readSigned() {
  int64_t v = 0;
  auto begin = text_.data() + pos_;
  auto end = text_.data() + text_.size();
  if (begin == end || !(*begin == '-' || (*begin >= '0' && *begin <= '9'))) {
    fail("a number");
  }
  const char* digits = *begin == '-' ? begin + 1 : begin;
  if (digits + 1 < end && digits[0] == '0' && digits[1] >= '0' && digits[1] <= '9') {
    fail("a number without leading zeros");
  }
  auto r = std::from_chars(begin, end, v);
  if (r.ec != std::errc()) {
    fail("a number of at most 64 bits");
  }
  pos_ += static_cast<size_t>(r.ptr - begin);
  return v;
}

double StrepReader::readDouble() {
  double v = 0;
  auto begin = text_.data() + pos_;
  auto end = text_.data() + text_.size();
  if (begin != end && *begin == '+') {
    fail("a floating-point number");
  }
  auto r = std::from_chars(begin, end, v);
  if (r.ec != std::errc()) {
    fail("a floating-point number");
  }
  pos_ += static_cast<size_t>(r.ptr - begin);
  return v;
}

bool StrepReader::readBool() {
  if (consume("True")) {
    return true;
  }
  if (consume("False")) {
    return false;
  }
  fail("True or False");
}

std::string_view StrepReader::readIdentifier() {
  size_t start = pos_;
  auto isAlpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
  if (atEnd() || !isAlpha(text_[pos_])) {
    fail("a name");
  }
  while (pos_ < text_.size() && (isAlpha(text_[pos_]) || (text_[pos_] >= '0' && text_[pos_] <= '9'))) {
    ++pos_;
  }
  return text_.substr(start, pos_ - start);
}

std::string StrepReader::readQuoted() {
  size_t start = pos_;
  expect("'");
  std::string out;
  while (true) {
    if (atEnd()) {
      failAt(start, "a quoted string with its closing quote");
    }
    char c = text_[pos_++];
    if (c == '\'') {
      return out;
    }
    if (c != '\\') {
      out.push_back(c);
      continue;
    }
    char e = peek();
    ++pos_;
    switch (e) {
      case '\\': out.push_back('\\'); break;
      case '\'': out.push_back('\''); break;
      case 'n': out.push_back('\n'); break;
      case 'r': out.push_back('\r'); break;
      case 't': out.push_back('\t'); break;
      case 'x': {
        auto hex = [](char h) -> int {
          if (h >= '0' && h <= '9') return h - '0';
          if (h >= 'a' && h <= 'f') return h - 'a' + 10;
          if (h >= 'A' && h <= 'F') return h - 'A' + 10;
          return -1;
        };
        int hi = pos_ < text_.size() ? hex(text_[pos_]) : -1;
        int lo = pos_ + 1 < text_.size() ? hex(text_[pos_ + 1]) : -1;
        if (hi < 0 || lo < 0) {
          failAt(pos_ - 2, "a \\xNN escape with two hex digits");
        }
        out.push_back(static_cast<char>(hi * 16 + lo));
        pos_ += 2;
        break;
      }
      default:
        failAt(pos_ - 2, "one of the escapes \\\\ \\' \\n \\r \\t \\xNN");
    }
  }
}

namespace internal {

void throwIntegerRange(std::string_view text, int64_t min, uint64_t max) {
  throw RangeException(fmt::format("{} is outside {}..{}", text, min, max));
}

void throwEnumName(const EnumInfo& info, std::string_view name) {
  throw RangeException(fmt::format("'{}' is not a name of {}", name, info.typeName));
}

}  // namespace internal
}  // namespace Kel
