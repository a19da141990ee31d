#pragma once

// Default visibility for what host and plug-ins share by name: the interface classes and the
// factory templates. A plug-in compiled with hidden visibility still exports these, and the
// factory singletons instantiated on them get the binding STB_GNU_UNIQUE, so that the dynamic
// loader binds every module to one definition.
#define LYR_SHARED __attribute__((visibility("default")))
