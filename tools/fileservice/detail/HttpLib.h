#pragma once

// The one place that includes cpp-httplib. The build defines the CPPHTTPLIB_* feature macros that
// the system's compiled library was built with (see CMakeLists.txt), so the classes declared here
// have the library's layout.
#include <httplib.h>
