// Line files: the text files mplsctl reads (route files, binding files, segment-routing
// files), one fact per line, words separated by blanks, `#` starting a comment to the end
// of the line, blank lines ignored.
//
// readLineFile() reads a whole file with bounds, so that endless or binary input fails
// instead of exhausting memory; forEachLine() hands out each non-blank line as a
// LineParser, which takes its words one by one and raises LineFileError pointing at the
// word in error: "<file>:<line>:<column>: <message>".
#pragma once

#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "Kel/Exception.h"
#include "Kel/Quote.h"

namespace Mplsctl {

// A file that cannot be used. what() is "<file>:<line>:<column>: <message>", for example
// "routes.txt:3:14: expected a label after 'swap', found 'x'"; a file that cannot be read
// is "<file>: <reason>" with line and column 0.
class LineFileError : public std::runtime_error {
 public:
  LineFileError(const std::string& file, uint32_t line, uint32_t column,
                const std::string& message);
  uint32_t line() const noexcept { return line_; }
  uint32_t column() const noexcept { return column_; }

 private:
  uint32_t line_;
  uint32_t column_;
};

// Bounds on what is read: far above a file of the whole label space with many vias per
// route.
inline constexpr size_t kMaxFileBytes = size_t{256} << 20;
inline constexpr size_t kMaxLineBytes = size_t{64} << 10;

// The text of the file at `path`; "-" reads standard input (named "<stdin>" in errors,
// which `name` receives). Throws LineFileError when the file cannot be read, is a
// directory or is longer than kMaxFileBytes; `kind` ("route file") ends those messages.
std::string readLineFile(const std::string& path, std::string_view kind, std::string& name);

struct Token {
  std::string_view text;
  uint32_t column;
};

// One line's words, and the errors that point into it.
class LineParser {
 public:
  LineParser(const std::string& file, uint32_t line, std::string_view text)
      : file_(file), line_(line) {
    size_t end = text.find('#');
    if (end != std::string_view::npos) {
      text = text.substr(0, end);
    }
    size_t i = 0;
    while (i < text.size()) {
      if (text[i] == ' ' || text[i] == '\t' || text[i] == '\r') {
        ++i;
        continue;
      }
      size_t start = i;
      while (i < text.size() && text[i] != ' ' && text[i] != '\t' && text[i] != '\r') {
        ++i;
      }
      tokens_.push_back({text.substr(start, i - start), static_cast<uint32_t>(start + 1)});
    }
    endColumn_ = static_cast<uint32_t>(text.size() + 1);
  }

  bool empty() const { return tokens_.empty(); }
  bool atEnd() const { return next_ == tokens_.size(); }
  const Token& peek() const { return tokens_[next_]; }
  bool peekIs(std::string_view word) const { return !atEnd() && peek().text == word; }
  Token take() { return tokens_[next_++]; }
  // Takes the next word if it is `word`.
  bool takeIf(std::string_view word) {
    if (!peekIs(word)) {
      return false;
    }
    ++next_;
    return true;
  }
  // The next word, which must be there.
  const Token& next(std::string_view what) const {
    if (atEnd()) {
      expected(what);
    }
    return peek();
  }

  [[noreturn]] void fail(uint32_t column, const std::string& message) const {
    throw LineFileError(file_, line_, column, message);
  }
  // "expected <what>, found '<next word>'" (or "found end of line") at the next word.
  [[noreturn]] void expected(std::string_view what) const {
    if (atEnd()) {
      fail(endColumn_, fmt::format("expected {}, found end of line", what));
    }
    fail(peek().column, fmt::format("expected {}, found {}", what, Kel::quoted(peek().text)));
  }
  // Takes the next word, which must be `word`.
  void keyword(std::string_view word, const std::string& context) {
    if (!peekIs(word)) {
      expected(fmt::format("'{}' {}", word, context));
    }
    take();
  }

  // A decimal number in [min, max]; `what` is what an error expected, `noun` names the
  // number in a range error.
  uint32_t number(const std::string& what, const char* noun, uint32_t min, uint32_t max) {
    if (atEnd()) {
      expected(what);
    }
    const Token t = peek();
    uint32_t value = 0;
    auto [ptr, ec] = std::from_chars(t.text.data(), t.text.data() + t.text.size(), value);
    if (ec == std::errc::result_out_of_range ||
        (ec == std::errc() && ptr == t.text.data() + t.text.size() && (value < min || value > max))) {
      fail(t.column, fmt::format("{} {} out of range {}..{}", noun, Kel::quoted(t.text), min, max));
    }
    if (ec != std::errc() || ptr != t.text.data() + t.text.size()) {
      expected(what);
    }
    take();
    return value;
  }

  template <class T>
  T parsed(const std::string& what) {
    if (atEnd()) {
      expected(what);
    }
    const Token t = peek();
    try {
      T value(t.text);
      take();
      return value;
    } catch (const Kel::Exception&) {
      expected(what);
    }
  }

  uint32_t line() const noexcept { return line_; }
  const std::string& file() const noexcept { return file_; }

 private:
  const std::string& file_;
  uint32_t line_;
  std::vector<Token> tokens_;
  size_t next_ = 0;
  uint32_t endColumn_ = 1;
};

// Calls f(P&) for every line of `text` that holds a word, in order. Throws
// LineFileError for a line longer than kMaxLineBytes or one with a NUL byte (`kind` ends
// that message: "a NUL byte: not a route file").
// P is LineParser or a parser derived from it (with its constructor).
template <class P = LineParser, class F>
void forEachLine(std::string_view text, const std::string& fileName, std::string_view kind, F&& f) {
  uint32_t lineNumber = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    ++lineNumber;
    size_t end = text.find('\n', pos);
    std::string_view line = text.substr(pos, end == std::string_view::npos ? end : end - pos);
    pos = end == std::string_view::npos ? text.size() : end + 1;
    if (line.size() > kMaxLineBytes) {
      throw LineFileError(fileName, lineNumber, 1,
                          fmt::format("line longer than {} bytes", kMaxLineBytes));
    }
    if (const size_t nul = line.find('\0'); nul != std::string_view::npos) {
      throw LineFileError(fileName, lineNumber, static_cast<uint32_t>(nul + 1),
                          fmt::format("a NUL byte: not a {}", kind));
    }
    P p(fileName, lineNumber, line);
    if (!p.empty()) {
      f(p);
    }
  }
}

}  // namespace Mplsctl
