// JSON by way of nlohmann's library, which no other file of shdtool includes. Called by everything
// that answers with --json.
#include "tools/shdtool/base/json.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace shdtool {

struct Json::Value {
    nlohmann::ordered_json json;
};

Json::Json(const Plain& value)
    : value_(std::visit([](auto plain) { return std::make_unique<Value>(Value{plain}); }, value)) {}
Json::Json(std::initializer_list<Field> fields) : Json() {
    value_->json = nlohmann::ordered_json::object();
    for (const Field& field : fields) Set(field.name, field.value);
}
Json::Json(const Json& other) : value_(std::make_unique<Value>(*other.value_)) {}
Json::Json(Json&& other) noexcept = default;
Json& Json::operator=(Json other) noexcept {
    value_ = std::move(other.value_);
    return *this;
}
Json::~Json() = default;

Json Json::List() {
    Json list;
    list.value_->json = nlohmann::ordered_json::array();
    return list;
}

std::optional<Json> Json::Parse(std::string_view text) {
    Json parsed;
    parsed.value_->json = nlohmann::ordered_json::parse(text, nullptr, false);
    if (parsed.value_->json.is_discarded()) return std::nullopt;
    return parsed;
}

std::optional<int64_t> Json::Integer(const char* name) const {
    const auto& object = value_->json;
    if (!object.is_object() || !object.contains(name)) return std::nullopt;
    if (!object[name].is_number_integer()) return std::nullopt;
    return object[name].get<int64_t>();
}

std::optional<std::string> Json::String(const char* name) const {
    const auto& object = value_->json;
    if (!object.is_object() || !object.contains(name)) return std::nullopt;
    if (!object[name].is_string()) return std::nullopt;
    return object[name].get<std::string>();
}

Json& Json::Set(std::string_view name, Json value) {
    value_->json[std::string(name)] = std::move(value.value_->json);
    return *this;
}

Json& Json::Merge(const Json& other) {
    if (!other.value_->json.is_null()) value_->json.update(other.value_->json);
    return *this;
}

Json& Json::Add(Json value) {
    value_->json.push_back(std::move(value.value_->json));
    return *this;
}

std::string Json::Text() const {
    return value_->json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace shdtool
