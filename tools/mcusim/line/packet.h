// The simulator speaks of the line in the words of tools/wire: packets, frames, recordings.
// Included by everything here that talks over the link.
#pragma once

#include "tools/wire/packet.h"

namespace mcusim {

using namespace wire;  // NOLINT(google-build-using-namespace): one vocabulary, two programs

}  // namespace mcusim
