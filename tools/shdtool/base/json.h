// A JSON value that can be put together, printed and read. The library behind it stays in json.cpp:
// its headers cost seconds of compiling in every file that sees them.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace shdtool {

class Json {
  public:
    struct Field;

    using Plain = std::variant<std::nullptr_t, bool, int64_t, uint64_t, double, std::string_view>;

    Json(const Plain& value = nullptr);
    Json(std::nullptr_t) : Json() {}
    Json(bool value) : Json(Plain(value)) {}
    Json(std::signed_integral auto number) : Json(Plain(int64_t{number})) {}
    Json(std::unsigned_integral auto number) : Json(Plain(uint64_t{number})) {}
    Json(double number) : Json(Plain(number)) {}
    Json(std::string_view text) : Json(Plain(text)) {}
    Json(const std::string& text) : Json(std::string_view(text)) {}
    Json(const char* text) : Json(std::string_view(text)) {}
    Json(std::initializer_list<Field> fields);  // an object, in this order
    Json(const Json& other);
    Json(Json&& other) noexcept;
    Json& operator=(Json other) noexcept;
    ~Json();

    [[nodiscard]] static Json List();
    template <typename Range>
    [[nodiscard]] static Json List(const Range& values) {
        Json list = List();
        for (const auto& value : values) list.Add(Json(value));
        return list;
    }

    // Empty when the text is no JSON.
    [[nodiscard]] static std::optional<Json> Parse(std::string_view text);

    // A field of an object; empty when there is none, or one of another type.
    [[nodiscard]] std::optional<int64_t> Integer(const char* name) const;
    [[nodiscard]] std::optional<std::string> String(const char* name) const;

    // Of an object (null becomes one); an existing field is replaced in its place.
    Json& Set(std::string_view name, Json value);
    // Adds all fields of another object.
    Json& Merge(const Json& other);
    // Of a list.
    Json& Add(Json value);

    // On one line. Bytes that are no UTF-8 are replaced.
    [[nodiscard]] std::string Text() const;

  private:
    struct Value;

    std::unique_ptr<Value> value_;
};

struct Json::Field {
    std::string_view name;
    Json value;
};

}  // namespace shdtool
