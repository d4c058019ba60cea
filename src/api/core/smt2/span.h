#pragma once

#include <cstddef>
#include <span>

// The span type of the smt2 interfaces, under the name the platform's interfaces have always used.
namespace nonstd {
namespace span_lite {
template <class T, std::size_t Extent = std::dynamic_extent>
using span = std::span<T, Extent>;
} // namespace span_lite
using span_lite::span;
} // namespace nonstd
