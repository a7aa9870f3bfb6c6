#pragma once
// Modules are built with hidden visibility; what other modules or the engine
// must reach (CreateModule, shared message classes) is marked here.
#define ARDENT_EXPORT __attribute__((visibility("default")))
