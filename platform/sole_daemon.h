// One hub has one daemon. On the device init sees to it; on a development machine each directory
// tree (SHD_ROOT) is a hub of its own, and the first daemon on it keeps it. Called by main.
#pragma once

#if defined(__ANDROID__)
[[nodiscard]] inline bool ClaimHub() {
    return true;
}
#else
// Claims the tree until the process ends, however it ends, and changes nothing in it. False, with
// one line in the log, when a live daemon has it. A tree that cannot be locked counts as free.
[[nodiscard]] bool ClaimHub();
#endif
