// The switch for verbose event lines.
#pragma once

#include <atomic>
#include <cstdint>

// Not 0 writes a line for each event; set from persist.velmar.shd.debug and by SHB_DEBUG_LOG.
inline std::atomic<int32_t> g_shd_log_debug{0};
