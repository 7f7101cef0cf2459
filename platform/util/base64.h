#pragma once

#include <cstddef>

/**
 * How many bytes a standard base64 text stands for: exactly what base64_decode makes of it.
 *
 * Characters outside the alphabet are skipped, so a text that is none gives something too. Padding that completes a
 * group ends the text; what stands behind it is not looked at. Bits of a last group that make no whole byte are
 * dropped.
 */
size_t base64_decode_len(const char* text, size_t length);

/**
 * Decodes a standard base64 text. Takes the texts that base64_decode_len takes.
 *
 * @param out       gets the bytes; no terminating zero is added
 * @param outLength how many bytes fit there; no more are written
 * @return how many bytes were written
 */
size_t base64_decode(const char* text, size_t length, char* out, size_t outLength);
