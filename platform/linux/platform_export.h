// Marks a function or table of the phone's interfaces, which other libraries and programs resolve by name; exports.map
// lists the same. All else in the platform is hidden.
#pragma once

#define PELMAR_PLATFORM_EXPORT [[gnu::visibility("default")]]
