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
#include <memory>
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

// The text of a line file, read or mapped (see parseLineFile).
class LineFileText {
 public:
  std::string_view text() const noexcept { return mapping_ ? mapped_ : std::string_view(read_); }
  // The file's name in errors: its path, or "<stdin>".
  const std::string& name() const noexcept { return name_; }
  // Throws LineFileError "<file>: cut short while being read" when the mapped file was
  // found shorter than it was when mapped.
  void checkWhole() const;

 private:
  friend LineFileText readLineFile(const std::string& path, std::string_view kind);
  std::string name_;
  std::string read_;                     // a file that was read
  std::shared_ptr<const void> mapping_;  // or the mapping of a regular file
  std::string_view mapped_;              // and its bytes
};

// The text of the file at `path`; "-" reads standard input (named "<stdin>" in errors).
// A large regular file is mapped rather than copied. Throws LineFileError when the file
// cannot be read, is a directory or is longer than kMaxFileBytes; `kind` ("route file")
// ends those messages.
LineFileText readLineFile(const std::string& path, std::string_view kind);

// parse(text, name) over the file at `path` (see readLineFile), and its result. A file cut
// short while it was parsed is that error, whatever the parse made of it.
template <class Parse>
auto parseLineFile(const std::string& path, std::string_view kind, Parse&& parse) {
  const LineFileText file = readLineFile(path, kind);
  try {
    auto result = parse(file.text(), file.name());
    file.checkWhole();
    return result;
  } catch (const LineFileError&) {
    file.checkWhole();
    throw;
  }
}

// Asks the kernel to back the memory of a large buffer (`bytes` from `data`, allocated and
// not yet touched) with huge pages: a buffer of 100 MB then costs 50 page faults instead of
// 25,000. A hint: without huge pages the memory is just as good.
void preferHugePages(const void* data, size_t bytes) noexcept;

struct Token {
  std::string_view text;
  uint32_t column;
};

// One line's words, and the errors that point into it. The words are found one at a time
// as they are taken: a line costs no allocation.
class LineParser {
 public:
  LineParser(const std::string& file, uint32_t line, std::string_view text)
      : file_(file), line_(line) {
    if (const size_t end = text.find('#'); end != std::string_view::npos) {
      text = text.substr(0, end);
    }
    text_ = text;
    endColumn_ = static_cast<uint32_t>(text.size() + 1);
    advance(0);
    empty_ = atEnd_;
  }

  bool empty() const { return empty_; }
  bool atEnd() const { return atEnd_; }
  const Token& peek() const { return current_; }
  bool peekIs(std::string_view word) const { return !atEnd_ && current_.text == word; }
  Token take() {
    const Token t = current_;
    advance(t.column - 1 + t.text.size());
    return t;
  }
  // Takes the next word if it is `word`.
  bool takeIf(std::string_view word) {
    if (!peekIs(word)) {
      return false;
    }
    take();
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
  // Takes the next word, which must be `word`; `context` follows it in the error.
  void keyword(std::string_view word, std::string_view context) {
    if (!peekIs(word)) {
      expected(fmt::format("'{}' {}", word, context));
    }
    take();
  }

  // A decimal number in [min, max]; `what` is what an error expected, `noun` names the
  // number in a range error.
  uint32_t number(std::string_view what, const char* noun, uint32_t min, uint32_t max) {
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
  T parsed(std::string_view what) {
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
  static bool blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }
  // Makes the word at or after offset `i` the next one.
  void advance(size_t i) {
    while (i < text_.size() && blank(text_[i])) {
      ++i;
    }
    if (i == text_.size()) {
      atEnd_ = true;
      current_ = Token{{}, endColumn_};
      return;
    }
    const size_t start = i;
    while (i < text_.size() && !blank(text_[i])) {
      ++i;
    }
    current_ = Token{text_.substr(start, i - start), static_cast<uint32_t>(start + 1)};
  }

  const std::string& file_;
  uint32_t line_;
  std::string_view text_;
  Token current_;
  bool atEnd_ = false;
  bool empty_ = false;
  uint32_t endColumn_ = 1;
};

// Calls f(P&) for every line of `text` that holds a word, in order; the first line of
// `text` is line `firstLine` of the file. Throws LineFileError for a line longer than
// kMaxLineBytes or one with a NUL byte (`kind` ends that message: "a NUL byte: not a
// route file").
// P is LineParser or a parser derived from it (with its constructor).
template <class P = LineParser, class F>
void forEachLine(std::string_view text, const std::string& fileName, std::string_view kind, F&& f,
                 uint32_t firstLine = 1) {
  uint32_t lineNumber = firstLine - 1;
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
