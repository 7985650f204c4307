// The structure of a text: its values and containers, read with plain branches in place of
// RapidJSON's state machine, and its numbers, handed to the handler.

#include <cstddef>
#include <vector>

#include "json_handler.h"
#include "json_number.h"
#include "json_reader.h"
#include "json_string.h"
#include "yl/yl_json.h"

namespace {

// What the reader's own members read for the structure reader.
enum class Scalar { String, Key, Null, True, False, Number };

// The structure of a document: values, and the containers they open and close, read with plain
// branches and a stack of the open containers. Strings, literals and numbers go to scalar(kind),
// which says whether they were accepted; a refusal of the structure goes to fail(code). It accepts
// the texts that RapidJSON's own driver accepts, whose table-driven state machine pays an
// indirect jump for every token.
template <typename Stream, typename ReadScalar, typename Fail>
class StructureReader {
 public:
  StructureReader(Stream& is, yljson::ParseHandler& handler, const ReadScalar& scalar,
                  const Fail& fail)
      : is_(is), handler_(handler), scalar_(scalar), fail_(fail) {}

  // Reads the root value and what it holds, and stops after it.
  void read() {
    rapidjson::SkipWhitespace(is_);
    if (is_.Peek() == '\0') {
      fail(rapidjson::kParseErrorDocumentEmpty);
      return;
    }
    for (;;) {
      Step step = value();
      if (step == Step::Closed) step = next();
      if (step == Step::Member) step = key();
      if (step != Step::Value) return;  // done, or refused
    }
  }

 private:
  // What comes next: a value, a member's key, what follows a complete value, or nothing.
  enum class Step { Value, Member, Closed, Done, Failed };

  Step fail(rapidjson::ParseErrorCode code) {
    fail_(code);
    return Step::Failed;
  }

  [[gnu::always_inline]] Step scalar(Scalar kind) {
    return scalar_(kind) ? Step::Closed : Step::Failed;
  }

  [[gnu::always_inline]] Step value() {
    switch (is_.Peek()) {
      case '{':
        return open(true);
      case '[':
        return open(false);
      case '"':
        return scalar(Scalar::String);
      case 'n':
        return scalar(Scalar::Null);
      case 't':
        return scalar(Scalar::True);
      case 'f':
        return scalar(Scalar::False);
      default:
        return scalar(Scalar::Number);  // which refuses what is not a number either
    }
  }

  [[gnu::always_inline]] Step open(bool object) {
    is_.Take();
    if (!(object ? handler_.StartObject() : handler_.StartArray()))
      return fail(rapidjson::kParseErrorTermination);
    rapidjson::SkipWhitespace(is_);
    if (is_.Peek() == (object ? '}' : ']')) {
      is_.Take();
      return close(object);
    }
    open_.push_back(object);
    return object ? Step::Member : Step::Value;
  }

  [[gnu::always_inline]] Step close(bool object) {
    if (!(object ? handler_.EndObject(0) : handler_.EndArray(0)))
      return fail(rapidjson::kParseErrorTermination);
    return Step::Closed;
  }

  // After a complete value: the containers it ends are closed, up to the next item or member.
  // After the root the caller looks at what follows.
  [[gnu::always_inline]] Step next() {
    while (!open_.empty()) {
      rapidjson::SkipWhitespace(is_);
      const bool object = open_.back();
      const char c = is_.Peek();
      if (c == ',') {
        is_.Take();
        rapidjson::SkipWhitespace(is_);
        return object ? Step::Member : Step::Value;
      }
      if (c != (object ? '}' : ']')) {
        return fail(object ? rapidjson::kParseErrorObjectMissCommaOrCurlyBracket
                           : rapidjson::kParseErrorArrayMissCommaOrSquareBracket);
      }
      is_.Take();
      open_.pop_back();
      if (close(object) == Step::Failed) return Step::Failed;
    }
    return Step::Done;
  }

  // A member's key and its colon.
  [[gnu::always_inline]] Step key() {
    if (is_.Peek() != '"') return fail(rapidjson::kParseErrorObjectMissName);
    if (!scalar_(Scalar::Key)) return Step::Failed;
    rapidjson::SkipWhitespace(is_);
    if (is_.Peek() != ':') return fail(rapidjson::kParseErrorObjectMissColon);
    is_.Take();
    rapidjson::SkipWhitespace(is_);
    return Step::Value;
  }

  Stream& is_;
  yljson::ParseHandler& handler_;
  const ReadScalar& scalar_;
  const Fail& fail_;
  // The open containers, innermost last: true for an object. The handler refuses to open more
  // than the deepest nesting allowed, so this stays as small.
  std::vector<bool> open_;
};

// A string or a key, read by readString over the text in place and handed to the handler.
template <typename Stream>
bool handString(Stream& is, yljson::ParseHandler& handler, bool key) {
  const yljson::StringRead read = yljson::readString(is.src_, handler.loadLimit());
  if (read.next == nullptr) return false;
  const char* bytes = is.src_ + 1;
  is.src_ = read.next;
  if (key) {
    handler.key(bytes, read.size, read.holdsNul);
  } else {
    handler.string(bytes, read.size);
  }
  return true;
}

template <typename Stream>
rapidjson::ParseResult handNumber(Stream& is, yljson::ParseHandler& handler) {
  using Verdict = yljson::NumberRead::Verdict;
  const std::size_t start = static_cast<std::size_t>(is.src_ - is.head_);
  const yljson::NumberRead read = yljson::readNumber(is.src_);
  bool accepted = false;
  switch (read.verdict) {
    case Verdict::Integer:
      is.src_ += read.size;
      accepted = handler.Int64(read.signedValue);
      break;
    case Verdict::UnsignedInteger:
      is.src_ += read.size;
      accepted = handler.Uint64(read.unsignedValue);
      break;
    case Verdict::Double:
      is.src_ += read.size;
      accepted = handler.Double(read.doubleValue);
      break;
    case Verdict::Invalid:
      return {rapidjson::kParseErrorValueInvalid, start + read.errorOffset};
    case Verdict::MissingFraction:
      return {rapidjson::kParseErrorNumberMissFraction, start + read.errorOffset};
    case Verdict::MissingExponent:
      return {rapidjson::kParseErrorNumberMissExponent, start + read.errorOffset};
    case Verdict::TooBig:
      return {rapidjson::kParseErrorNumberTooBig, start + read.errorOffset};
  }
  if (accepted) return {};
  return {rapidjson::kParseErrorTermination, start};
}

}  // namespace

namespace rapidjson {
// The reader's driver is replaced by StructureReader above, for both streams. The two bodies are
// alike but for the stream: only members of the reader may call its scalar readers.
template <>
template <>
ParseResult yljson::DocumentReader::IterativeParse<
    yljson::kParseFlags, yljson::BytewiseInsituStream, yljson::ParseHandler>(
    yljson::BytewiseInsituStream& is, yljson::ParseHandler& handler) {
  constexpr unsigned kFlags = yljson::kParseFlags;
  parseResult_.Clear();
  const auto scalar = [ this, &is, &handler ](Scalar kind) __attribute__((always_inline)) {
    switch (kind) {
      case Scalar::String:
      case Scalar::Key:
        if (!handString(is, handler, kind == Scalar::Key))
          SetParseError(kParseErrorStringInvalidEncoding, is.Tell());
        break;
      case Scalar::Null:
        ParseNull<kFlags>(is, handler);
        break;
      case Scalar::True:
        ParseTrue<kFlags>(is, handler);
        break;
      case Scalar::False:
        ParseFalse<kFlags>(is, handler);
        break;
      case Scalar::Number:
        ParseNumber<kFlags>(is, handler);
        break;
    }
    return !HasParseError();
  };
  const auto fail = [this, &is](ParseErrorCode code) { SetParseError(code, is.Tell()); };
  StructureReader(is, handler, scalar, fail).read();
  return parseResult_;
}

template <>
template <>
ParseResult yljson::DocumentReader::IterativeParse<
    yljson::kParseFlags, InsituStringStream, yljson::ParseHandler>(InsituStringStream& is,
                                                                   yljson::ParseHandler& handler) {
  constexpr unsigned kFlags = yljson::kParseFlags;
  parseResult_.Clear();
  const auto scalar = [ this, &is, &handler ](Scalar kind) __attribute__((always_inline)) {
    switch (kind) {
      case Scalar::String:
      case Scalar::Key:
        if (!handString(is, handler, kind == Scalar::Key))
          SetParseError(kParseErrorStringInvalidEncoding, is.Tell());
        break;
      case Scalar::Null:
        ParseNull<kFlags>(is, handler);
        break;
      case Scalar::True:
        ParseTrue<kFlags>(is, handler);
        break;
      case Scalar::False:
        ParseFalse<kFlags>(is, handler);
        break;
      case Scalar::Number:
        ParseNumber<kFlags>(is, handler);
        break;
    }
    return !HasParseError();
  };
  const auto fail = [this, &is](ParseErrorCode code) { SetParseError(code, is.Tell()); };
  StructureReader(is, handler, scalar, fail).read();
  return parseResult_;
}

template <>
template <>
void yljson::DocumentReader::ParseNumber<yljson::kParseFlags, InsituStringStream,
                                         yljson::ParseHandler>(InsituStringStream& is,
                                                               yljson::ParseHandler& handler) {
  const ParseResult result = handNumber(is, handler);
  if (result.IsError()) SetParseError(result.Code(), result.Offset());
}

template <>
template <>
void yljson::DocumentReader::ParseNumber<yljson::kParseFlags, yljson::BytewiseInsituStream,
                                         yljson::ParseHandler>(yljson::BytewiseInsituStream& is,
                                                               yljson::ParseHandler& handler) {
  const ParseResult result = handNumber(is, handler);
  if (result.IsError()) SetParseError(result.Code(), result.Offset());
}
}  // namespace rapidjson
