// Which hub is meant when none is named. Called by the mains of the tools.
#pragma once

#include <string>

namespace shdclient {

// The directory tree of the hub: the value of SHD_ROOT; without that variable the device's own root
// (empty) where a hub has a socket in it, or else the tree of the hub that scripts/run has running
// for this user, or else the device's own root. May wait as long as a connection does (seconds).
[[nodiscard]] std::string DefaultRoot();

// Whether that tree is of the hub of scripts/run which DefaultRoot finds.
[[nodiscard]] bool IsDemoHub(const std::string& root);

}  // namespace shdclient
