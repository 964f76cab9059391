#ifndef KEST_EXPORT_H
#define KEST_EXPORT_H

/// @file
/// The marks of what the library exports. Programs need none of them.

/// KEST_EXPORT marks what callers may link against. Everything else of the library is built hidden.
/// Classes that are thrown, or converted with dynamic_cast, carry it too: their type information is then one object for the
/// library and all its callers.
#define KEST_EXPORT __attribute__((visibility("default")))

/// KEST_HIDDEN marks what an exported class keeps for itself: private operations that only the library's sources call. They are no part of
/// the binary interface, so they may change in any version.
#define KEST_HIDDEN __attribute__((visibility("hidden")))

#endif
