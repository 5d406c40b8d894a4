// The wall clock jumps while the daemon waits: time() is off by the seconds in the file named by
// SHD_CLOCK_JUMP, as long as it is there. Preloaded into the daemon by the cases of a jumping
// clock.
#include <cstdio>
#include <cstdlib>
#include <ctime>

extern "C" time_t time(time_t* out) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    long offset = 0;
    if (std::FILE* file = std::fopen(std::getenv("SHD_CLOCK_JUMP"), "re")) {
        if (std::fscanf(file, "%ld", &offset) != 1) offset = 0;
        (void)std::fclose(file);
    }
    if (out != nullptr) *out = now.tv_sec + offset;
    return now.tv_sec + offset;
}
