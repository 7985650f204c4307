#pragma once
// JSON documents: a tree of values whose addresses never change while the document lives, and
// whose objects keep their members in insertion order.
//
// Parsing never throws. It accepts any bytes of 0x20 and above inside strings (invalid UTF-8 is
// passed through unchanged) and refuses a raw control byte below 0x20 anywhere but as white space,
// as JSON requires, lets the last of duplicate keys win as ECMAScript does (the member keeps the
// place of its first occurrence), and rejects nesting deeper than YLJson::kMaxDepth: such a text
// gives an invalid document, never a crash. A \u escape of a high surrogate must be followed by
// its low partner, or the text is invalid; a lone low surrogate is kept as its three-byte form.
// A number without a fraction or an exponent that fits 64 bits, signed or else unsigned, is kept
// as that integer; any other number is the double that std::strtod gives for its text in the C
// locale (correctly rounded; one too small for a double is a zero of its sign), and a number
// beyond the range of a double makes the text invalid. The verdict and the document are the same
// whichever constructor parses the text and whatever buffer holds it.
//
// Writing gives compact JSON (no white space). Only what JSON requires is escaped: the quote, the
// backslash and control bytes below 0x20; every other byte is passed through. Integers are written
// exactly; doubles in the shortest form that reads back to the same value, always with a fraction
// or an exponent ("1.0", "0.7", "1e+300"), independent of the process's C locale. A double that
// is not finite has no JSON form and is written as null.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "yl/yl_export.h"

class YLVariant;
class YLJson;
class YLJsonValue;

// A member of an object, as YLJsonValue::obtainMembers gives it.
struct YLJsonMember {
  std::string_view key;
  YLJsonValue* value;
};

// The library's own code that reads and builds documents; nothing a host uses.
namespace yljson {
struct Arena;
struct Layout;
struct ParseHandler;
}  // namespace yljson

// The type of a JSON value. A value that was added but not given anything is Null.
enum class YLJsonValueType : std::int32_t {
  Null = 0,
  Object = 1,
  Array = 2,
  String = 3,
  Number = 4,
  Bool = 5,
};

class YL_EXPORT IYLJsonValue {
 public:
  virtual ~IYLJsonValue() = default;

  virtual bool getIsValidJson() const = 0;
  virtual YLJsonValueType obtainType() const = 0;

  // The member under the key, or null if there is none or this value is not an object.
  virtual IYLJsonValue* obtainKeyValue(std::string_view key) const = 0;
  // The number of items of an array; 0 for any other value.
  virtual std::size_t obtainArraySize() const = 0;
  // The item at an index below obtainArraySize(); null otherwise.
  virtual IYLJsonValue* obtainArrayItem(std::size_t index) const = 0;

  // The text of a string value, by copy; empty for any other value.
  virtual std::string obtainStringValue() const = 0;
  // A number as a signed 32-bit integer: a fraction is truncated toward zero, a value outside the
  // 32-bit range saturates at INT32_MIN or INT32_MAX, NaN gives 0. Any other value gives 0.
  virtual std::int32_t obtainIntValue() const = 0;

  // Makes a value that is not an object an empty object, then adds the key and returns the new,
  // Null member. Adding a key that is already there resets that member to Null and returns it.
  virtual IYLJsonValue* addKeyValue(std::string_view key) = 0;
  // Makes a value that is not an array an empty array, then appends a Null item and returns it.
  virtual IYLJsonValue* addArrayItem() = 0;
  // Makes the value an empty array.
  virtual void setArrayType() = 0;

  virtual void setStringValue(std::string_view value) = 0;
  virtual void setIntValue(std::int64_t value) = 0;
  virtual void setDoubleValue(double value) = 0;
  virtual void setBoolValue(bool value) = 0;

  // The value as compact JSON text.
  virtual std::string obtainJsonString() const = 0;
};

// A value inside a document. Values belong to their document and die with it; nobody deletes
// them. Turning a value into another type drops its old children from the tree; their storage
// stays valid until the document dies.
class YL_EXPORT YLJsonValue : public IYLJsonValue {
 public:
  YLJsonValue(const YLJsonValue&) = delete;
  YLJsonValue& operator=(const YLJsonValue&) = delete;

  bool getIsValidJson() const override;
  YLJsonValueType obtainType() const override;
  YLJsonValue* obtainKeyValue(std::string_view key) const override;
  std::size_t obtainArraySize() const override;
  YLJsonValue* obtainArrayItem(std::size_t index) const override;
  std::string obtainStringValue() const override;
  std::int32_t obtainIntValue() const override;
  YLJsonValue* addKeyValue(std::string_view key) override;
  YLJsonValue* addArrayItem() override;
  void setArrayType() override;
  void setStringValue(std::string_view value) override;
  void setIntValue(std::int64_t value) override;
  void setDoubleValue(double value) override;
  void setBoolValue(bool value) override;
  std::string obtainJsonString() const override;

  // Beyond the interface: reads without copies, for callers that walk large documents.
  // The text of a string value without a copy; valid while the document lives and the value is
  // not changed. Empty for any other value.
  std::string_view obtainStringView() const;
  // Makes this value the string, as setStringValue does, but takes the string over instead of
  // copying it when it is large: the document keeps it until it dies. value is left empty.
  void takeStringValue(std::string&& value);
  double obtainDoubleValue() const;
  bool obtainBoolValue() const;
  // Members of an object, in insertion order; 0 and null for any other value.
  std::size_t obtainMemberCount() const;
  std::string_view obtainMemberKey(std::size_t index) const;
  YLJsonValue* obtainMemberValue(std::size_t index) const;
  // A walk in bulk: the members (or items) from index `from` on, at most `capacity` of them,
  // written to `out`; gives how many. 0 for any other type of value or when from is past the end.
  // One call reads the container once, where a call per member finds the document each time.
  std::size_t obtainMembers(YLJsonMember* out, std::size_t capacity, std::size_t from = 0) const;
  std::size_t obtainArrayItems(YLJsonValue** out, std::size_t capacity, std::size_t from = 0) const;
  // Appends the compact JSON text of this value to out.
  void appendJsonString(std::string& out) const;

 protected:
  YLJsonValue() = default;
  ~YLJsonValue() override;

 private:
  friend class YLJson;
  friend struct yljson::Layout;
  // Representation, owned by the JSON implementation: what kind of value this is, with a count or
  // size when it is small, and a 32-bit reference into the document's storage. A value finds its
  // document from its own address, so this is all it carries besides its virtual table.
  std::uint32_t word_ = 0;
  std::uint32_t payload_ = 0;
};

// A document, which is itself its root value.
//
// A parsed document keeps the text it was parsed from and decodes strings inside it: strings and
// keys are views into that one buffer. Texts of 4 GiB and more are not parsed (invalid).
class YL_EXPORT YLJson final : public YLJsonValue {
 public:
  // The deepest nesting of arrays and objects that parsing accepts.
  static constexpr std::size_t kMaxDepth = 4096;

  // An empty document to build in; valid, its root is Null.
  YLJson();
  // Parses a copy of the text. A bad text, the empty one too, gives getIsValidJson() false and a
  // Null root.
  explicit YLJson(std::string_view text);
  explicit YLJson(const char* text);
  // Parses the text in its own buffer, which the document takes over: no copy is made. The string
  // is left empty. A string that is still needed goes to the copying constructor: only an rvalue
  // binds here.
  explicit YLJson(std::string&& text);
  ~YLJson() override;

  bool getIsValidJson() const override;

  // The bytes of memory the document holds: its text, its values and their tables.
  std::size_t obtainStorageSize() const;

 private:
  friend class YLJsonValue;
  friend struct yljson::Layout;
  friend struct yljson::ParseHandler;
  std::unique_ptr<yljson::Arena> arena_;
  bool valid_ = true;
};

// A document for a variant: maps become objects (in the map's key order), lists arrays, strings
// strings, Int and Double numbers, Null null. The caller owns the document.
YL_EXPORT std::unique_ptr<YLJson> ylCreateYLJsonFromYLVariant(const YLVariant& value);
