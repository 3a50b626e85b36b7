#pragma once

// A type that crosses a shared object's boundary must be the same type on both sides. Builds with
// -fvisibility=hidden make vtables, type information and template statics private to each object
// unless the type says otherwise.
#define ANALYTICS_VISIBLE __attribute__((visibility("default")))
#define ANALYTICS_HIDDEN __attribute__((visibility("hidden")))

// Marks the symbols of a type or function as this library's, so that a process may have a Timer or
// a Mutex of its own beside it. Names in source and in __PRETTY_FUNCTION__ stay as they are. A type
// that has the mark is included, not forward-declared: the compiler wants it at the first
// declaration, and not after the definition.
#define ANALYTICS_TAG __attribute__((abi_tag("analytics")))

// For types that cross a library boundary and have a common name, such as Timer. Types with a name
// of our own, such as AnalyticsParcel, take ANALYTICS_VISIBLE and may be forward-declared.
#define ANALYTICS_EXPORT __attribute__((visibility("default"), abi_tag("analytics")))
