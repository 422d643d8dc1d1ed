// Growing memory without exceptions: an allocation that fails is an ordinary result.
#ifndef VAKRO_PKCS11_MEMORY_H
#define VAKRO_PKCS11_MEMORY_H

#include "core/owners.h"

#include <openssl/crypto.h>

#include <span>
#include <type_traits>
#include <utility>

using Span = std::span<const unsigned char>;

inline bool IsSame(Span a, Span b) {
  return a.size() == b.size() && (a.empty() || memcmp(a.data(), b.data(), a.size()) == 0);
}

// A list of plain elements, which it does not own anything of.
template <class T>
struct List {
  static_assert(std::is_trivially_copyable_v<T>);
  T* items = nullptr;
  size_t count = 0;
  size_t room = 0;

  List() = default;
  List(List&& other) noexcept { Swap(other); }
  List& operator=(List&& other) noexcept {
    Swap(other);
    return *this;
  }
  ~List() { FreeIfSet<vakro_free>(items); }

  void Swap(List& other) {
    std::swap(items, other.items);
    std::swap(count, other.count);
    std::swap(room, other.room);
  }
  // Room for `more` elements, which may then be written and counted; false without memory.
  bool Reserve(size_t more) {
    if (more <= room - count) return true;
    const size_t wanted = (count + more) * 2 + 8;
    T* const moved = Allocate<T>(wanted, "pkcs11");
    if (moved == nullptr) return false;
    if (count > 0) memcpy(moved, items, count * sizeof(T));
    if constexpr (sizeof(T) == 1) {
      if (items != nullptr) OPENSSL_cleanse(items, room);  // may be a data object's value
    }
    FreeIfSet<vakro_free>(items);
    items = moved;
    room = wanted;
    return true;
  }
  bool Add(const T& item) {
    const T copy = item;  // it may be one of ours
    if (!Reserve(1)) return false;
    items[count++] = copy;
    return true;
  }
  void RemoveAt(size_t index) {
    count--;
    memmove(items + index, items + index + 1, (count - index) * sizeof(T));
  }
  T* begin() const { return items; }
  T* end() const { return items + count; }
  T& operator[](size_t index) const { return items[index]; }
};

struct Buffer : List<unsigned char> {
  bool Append(Span more) {
    if (!Reserve(more.size())) return false;
    if (!more.empty()) memcpy(items + count, more.data(), more.size());
    count += more.size();
    return true;
  }
  bool Assign(Span other) {
    count = 0;
    return Append(other);
  }
  bool AppendWord(unsigned int word) {
    unsigned char bytes[4];
    int2be(word, bytes);
    return Append(bytes);
  }
};

// New<T> and Delete<T>: records that are not plain.
template <class T>
T* New() {
  void* const memory = vakro_malloc(sizeof(T), "pkcs11", __LINE__);
  return memory != nullptr ? new (memory) T() : nullptr;
}
template <class T>
void Delete(T* record) {
  if (record == nullptr) return;
  record->~T();
  vakro_free(record);
}

#endif
