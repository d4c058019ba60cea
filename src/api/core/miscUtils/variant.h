#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <variant>

namespace miscUtils {

class Variant;
using VariantHash = std::unordered_map<std::string, Variant>;

// A plain value: nothing, bool, 64-bit integer, double, UTF-8 string or a hash of values.
// Copies are cheap (a hash is shared, never modified in place). Not thread-safe to modify
// one object from two threads; distinct copies may be used on distinct threads.
class Variant
{
public:
    enum class Type { Null, Bool, Int, Double, String, Hash };

    Variant() = default;
    Variant(bool value) : m_value(value) {}
    Variant(int value) : m_value(std::int64_t(value)) {}
    Variant(std::int64_t value) : m_value(value) {}
    Variant(double value) : m_value(value) {}
    Variant(const char* value) : m_value(std::string(value ? value : "")) {}
    Variant(std::string value) : m_value(std::move(value)) {}
    Variant(VariantHash value) : m_value(std::make_shared<const VariantHash>(std::move(value))) {}

    Type type() const { return Type(m_value.index()); }
    bool isNull() const { return type() == Type::Null; }

    // Typed views; a value of another type gives the default (false, 0, empty).
    bool asBool() const;
    std::int64_t asInt() const;
    double asDouble() const;
    std::string asString() const;
    // An empty hash when the value is not a hash.
    const VariantHash& asHash() const;

    friend bool operator==(const Variant& a, const Variant& b);
    friend bool operator!=(const Variant& a, const Variant& b) { return !(a == b); }

private:
    std::variant<std::monostate, bool, std::int64_t, double, std::string, std::shared_ptr<const VariantHash>> m_value;
};

} // namespace miscUtils
