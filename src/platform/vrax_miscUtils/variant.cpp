#include "miscUtils/variant.h"

namespace miscUtils {

bool Variant::asBool() const
{
    const bool* v = std::get_if<bool>(&m_value);
    return v ? *v : false;
}

std::int64_t Variant::asInt() const
{
    const std::int64_t* v = std::get_if<std::int64_t>(&m_value);
    return v ? *v : 0;
}

double Variant::asDouble() const
{
    if (const double* v = std::get_if<double>(&m_value))
        return *v;
    if (const std::int64_t* v = std::get_if<std::int64_t>(&m_value))
        return double(*v);
    return 0.0;
}

std::string Variant::asString() const
{
    const std::string* v = std::get_if<std::string>(&m_value);
    return v ? *v : std::string();
}

const VariantHash& Variant::asHash() const
{
    static const VariantHash empty;
    const auto* v = std::get_if<std::shared_ptr<const VariantHash>>(&m_value);
    return v && *v ? **v : empty;
}

bool operator==(const Variant& a, const Variant& b)
{
    if (a.type() != b.type())
        return false;
    if (a.type() == Variant::Type::Hash)
        return a.asHash() == b.asHash();
    return a.m_value == b.m_value;
}

} // namespace miscUtils
