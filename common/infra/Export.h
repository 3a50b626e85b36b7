#pragma once

// A type that crosses a shared object's boundary must be the same type on both sides. Builds with
// -fvisibility=hidden make vtables, type information and template statics private to each object
// unless the type says otherwise, so every type that is named across the boundary carries this.
#define ANALYTICS_EXPORT __attribute__((visibility("default")))
