#pragma once

#include <stddef.h>
#include <stdint.h>

#include <iterator>

namespace quil::host {

// Bytes that somebody else holds; what std::span is in a newer C++ than the platform's.
class ByteView {
  public:
    constexpr ByteView() = default;
    constexpr ByteView(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    // A view of a vector, an array, a span.
    template <typename Container>
    constexpr ByteView(const Container& bytes) : ByteView(std::data(bytes), std::size(bytes)) {}

    constexpr const uint8_t* data() const { return mData; }
    constexpr size_t size() const { return mSize; }
    constexpr bool empty() const { return mSize == 0; }
    constexpr const uint8_t* begin() const { return mData; }
    constexpr const uint8_t* end() const { return mData + mSize; }
    constexpr uint8_t operator[](size_t at) const { return mData[at]; }

    // The caller has checked that the bytes are there.
    constexpr ByteView first(size_t count) const { return {mData, count}; }
    constexpr ByteView from(size_t at) const { return {mData + at, mSize - at}; }

  private:
    const uint8_t* mData = nullptr;
    size_t mSize = 0;
};

}  // namespace quil::host
