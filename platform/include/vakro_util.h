// The utility library, libvakro_util.so: allocator, lock, JSON values, hex and base64 coders.
// This header is the contract that a replacement of the library keeps.
//
// What every function shares:
//   Results   1 is success, 0 failure (memory, malformed input, NULL where a value is required);
//             out-arguments are written on 1 only. No function terminates the process or throws.
//   Memory    every buffer handed out comes from vakro_malloc and goes back with vakro_free; the
//             crypto library shares this heap.
//   Lengths   in bytes, without a NUL. Texts handed out carry a NUL behind their length.
//   Threads   no shared state. A value belongs to one thread at a time; locks are for all.
#ifndef VAKRO_UTIL_H
#define VAKRO_UTIL_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// --- Allocator ------------------------------------------------------------------------------

// vakro_malloc returns `size` bytes, uninitialised, aligned for any type; NULL when memory is
// out. A size of 0 gives a pointer that may be freed. `file` and `line` name the caller.
void* vakro_malloc(size_t size, const char* file, int line);

// vakro_free releases memory of vakro_malloc. NULL is ignored.
void vakro_free(void* memory);

// --- Lock -----------------------------------------------------------------------------------

typedef struct VakroLock VakroLock;

// vakro_lock_new returns a recursive lock: the thread that holds it may take it again and
// releases it as often. NULL on failure.
VakroLock* vakro_lock_new(void);

// vakro_lock_lock waits for the lock. vakro_lock_unlock fails for a thread that does not hold it.
int vakro_lock_lock(VakroLock* lock);
int vakro_lock_unlock(VakroLock* lock);

// vakro_lock_free destroys a lock that nobody holds. NULL is ignored.
void vakro_lock_free(VakroLock* lock);

// --- JSON -----------------------------------------------------------------------------------

typedef struct VakroJson VakroJson;

enum VakroJsonType {
  VAKRO_JSON_STRING = 1,
  VAKRO_JSON_NUMBER = 2,
  VAKRO_JSON_FALSE = 3,
  VAKRO_JSON_TRUE = 4,
  VAKRO_JSON_NULL = 5,
  VAKRO_JSON_ARRAY = 6,
  VAKRO_JSON_OBJECT = 7,  // kept through decode, copy and encode; its members can't be reached
};

// Flags of vakro_json_encode; the only ones known. Others are refused.
#define VAKRO_JSON_COMPACT 0x90000000u

// vakro_json_decode parses one JSON text (RFC 8259) of `length` bytes; it need not end in a NUL.
// Strings pass byte for byte, without a check of their UTF-8. Arrays and objects nest at most 64
// deep. Anything around the value but white space is refused. Returns a new tree; or NULL, and
// then errno says why: EINVAL, the text is not JSON within these bounds; any other value, it could
// not be told for a passing reason (ENOMEM: memory).
VakroJson* vakro_json_decode(const char* text, unsigned int length);

// vakro_json_encode writes compact JSON: no white space; a number that was decoded keeps its
// digits, one made here has no fraction if it is whole and otherwise the fewest digits that give it
// back; in strings only ", \ and bytes below 0x20 are escaped.
int vakro_json_encode(const VakroJson* value, unsigned int flags, char** text,
                      unsigned int* length);

// vakro_json_gettype returns a VakroJsonType; 0 for NULL.
int vakro_json_gettype(const VakroJson* value);

// vakro_json_getarraysize returns the number of items; 0 when `array` is not an array.
int vakro_json_getarraysize(const VakroJson* array);

// vakro_json_getarrayitem returns the item at `index`, or NULL. The item stays owned by the array:
// the caller never frees it and must not use it after the array was freed or appended to.
VakroJson* vakro_json_getarrayitem(VakroJson* array, int index);

// vakro_json_getstring returns the bytes of a string (borrowed; NULs may stand among them, and one
// stands behind), NULL for any other type; vakro_json_getstringlength their count.
const char* vakro_json_getstring(const VakroJson* value);
unsigned int vakro_json_getstringlength(const VakroJson* value);

// vakro_json_getnumber returns the number, infinite beyond the range of a double; 0 for any other
// type.
double vakro_json_getnumber(const VakroJson* value);

// New values, owned by the caller; NULL when memory is out. A string copies `text`; a number must
// be finite.
VakroJson* vakro_json_newarray(void);
VakroJson* vakro_json_newstring(const char* text, unsigned int length);
VakroJson* vakro_json_newnumber(double number);

// vakro_json_addarrayitem appends a copy of `item`; the caller still owns `item`. The array may be
// an item of another: its owner then holds the new item too. Refuses an item that would nest deeper
// than a text that can be decoded. On 0 the array is as it was.
int vakro_json_addarrayitem(VakroJson* array, const VakroJson* item);

// vakro_json_dup returns a deep copy, or NULL. Copies are independent of their source.
VakroJson* vakro_json_dup(const VakroJson* value);

// vakro_json_free releases a value that the caller owns, with all its items. NULL is ignored.
void vakro_json_free(VakroJson* value);

// --- Coders ---------------------------------------------------------------------------------

// Modes: 1 for encoding hex (lower case) and base64 (RFC 4648 section 4, padded, one line); 2 for
// decoding base64. Other modes are refused.

// vakro_hexencode writes two digits a byte.
int vakro_hexencode(int mode, const unsigned char* bytes, int length, char** text, int* textLength);

// vakro_hexdecode reads digits of both cases; an odd count or any other character is refused.
int vakro_hexdecode(const char* text, int length, unsigned char** bytes, int* byteLength);

int vakro_base64encode(int mode, const unsigned char* bytes, int length, char** text,
                       int* textLength);

// vakro_base64decode is strict: padding is required, white space, other characters and non-zero
// trailing bits are refused.
int vakro_base64decode(int mode, const char* text, int length, unsigned char** bytes,
                       int* byteLength);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
