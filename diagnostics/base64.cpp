// Base64 encoder of the core-dump capture.
#include "diagnostics/base64.h"

int Base64Encode(const uint8_t* input, size_t length, char* output) {
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (input == nullptr || output == nullptr) return -1;
    for (size_t i = 0; i < length; i += 3) {
        const size_t left = length - i;
        const unsigned b0 = input[i];
        const unsigned b1 = left > 1 ? input[i + 1] : 0U;
        const unsigned b2 = left > 2 ? input[i + 2] : 0U;
        *output++ = kAlphabet[b0 >> 2];
        *output++ = kAlphabet[((b0 << 4) | (b1 >> 4)) & 63];
        *output++ = left > 1 ? kAlphabet[((b1 << 2) | (b2 >> 6)) & 63] : '=';
        *output++ = left > 2 ? kAlphabet[b2 & 63] : '=';
    }
    *output = '\0';
    return 0;
}
