// The wall clock jumps while the daemon waits: one call of time() is off. Preloaded into the daemon
// by the cases of a jumping clock, which write "SECONDS CALL" into the file named by
// SHD_CLOCK_JUMP: off by how much, and how many calls there are before; the file is gone when it
// has happened.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>

extern "C" time_t time(time_t* out) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const char* path = std::getenv("SHD_CLOCK_JUMP");
    if (std::FILE* file = std::fopen(path, "re")) {
        static std::atomic<int> calls{0};
        long seconds = 0;
        int before = 0;
        const bool told = std::fscanf(file, "%ld %d", &seconds, &before) == 2;
        (void)std::fclose(file);
        if (told && calls++ == before) now.tv_sec += std::remove(path) == 0 ? seconds : 0;
    }
    if (out != nullptr) *out = now.tv_sec;
    return now.tv_sec;
}
