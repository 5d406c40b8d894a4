// A JSON value that can be put together and printed. The library behind it stays in json.cpp: its
// headers cost seconds of compiling in every file that sees them.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

namespace shdtool {

class Json {
  public:
    struct Field;

    Json();  // null
    Json(std::nullptr_t) : Json() {}
    Json(double number);
    Json(std::string_view text);
    Json(const std::string& text) : Json(std::string_view(text)) {}
    Json(const char* text) : Json(std::string_view(text)) {}
    template <std::integral T>
    Json(T number) : Json() {
        if constexpr (std::same_as<T, bool>) {
            SetBool(number);
        } else if constexpr (std::unsigned_integral<T>) {
            SetUnsigned(number);
        } else {
            SetSigned(number);
        }
    }
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

    void SetBool(bool value);
    void SetSigned(int64_t value);
    void SetUnsigned(uint64_t value);

    std::unique_ptr<Value> value_;
};

struct Json::Field {
    std::string_view name;
    Json value;
};

}  // namespace shdtool
