// The process and its neighbours as applications, as AppKit and the main bundle tell of them. Plain C++: no
// Objective-C, no Qt. Texts are UTF-8.
#pragma once

#include <cstdint>
#include <string>

namespace macos {

/// No Dock icon, no menu bar. Skipped where the system has no application object. Main thread.
void becomeAccessory();

/// The main bundle's property of that selector name; empty when there is none. Any thread.
std::string mainBundleString(const char* selectorName);

/// The path of a running application's executable; empty when it cannot be told. Any thread.
std::string executablePath(std::int64_t processId);

}
