#pragma once

// Little-endian field access for the wire formats; private to the library.

#include <concepts>
#include <cstddef>
#include <vector>

namespace vrx::detail {

template <std::unsigned_integral Value>
void writeLittleEndian(unsigned char* bytes, Value value)
{
    for (std::size_t byteIndex = 0; byteIndex < sizeof(Value); ++byteIndex)
        bytes[byteIndex] = static_cast<unsigned char>(value >> (8 * byteIndex));
}

template <std::unsigned_integral Value>
void appendLittleEndian(std::vector<unsigned char>& buffer, Value value)
{
    buffer.resize(buffer.size() + sizeof(Value));
    writeLittleEndian(buffer.data() + buffer.size() - sizeof(Value), value);
}

template <std::unsigned_integral Value>
Value readLittleEndian(const unsigned char* bytes)
{
    Value value = 0;
    for (std::size_t byteIndex = 0; byteIndex < sizeof(Value); ++byteIndex)
        value |= static_cast<Value>(static_cast<Value>(bytes[byteIndex]) << (8 * byteIndex));
    return value;
}

} // namespace vrx::detail
