// The size query that every exported getter of bytes answers.
#ifndef VAKRO_CORE_ANSWER_H
#define VAKRO_CORE_ANSWER_H

#include "vakro_device.h"

#include <string.h>

// AnswerBytes is the size query of every exported getter of bytes: `needed` bytes at `bytes`, the
// caller's `buffer` of `size` bytes or NULL. Returns 1, or -4 when the buffer is too small; 0 for a
// NULL `length`.
template <class Length>
int AnswerBytes(const void* bytes, int needed, void* buffer, int size, Length* length) {
  if (length == nullptr) return VAKRO_FAILED;
  *length = static_cast<Length>(needed);
  if (buffer == nullptr) return VAKRO_OK;
  if (size < needed) return VAKRO_BUFFER_TOO_SMALL;
  if (needed > 0) memcpy(buffer, bytes, static_cast<size_t>(needed));
  return VAKRO_OK;
}

// AnswerString is the size query over a string and its NUL.
template <class Length>
int AnswerString(const char* text, void* buffer, int size, Length* length) {
  return AnswerBytes(text, static_cast<int>(strlen(text)) + 1, buffer, size, length);
}

#endif
