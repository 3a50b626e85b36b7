#pragma once

#include "common/infra/Export.h"

// Deletes by a C library's function, for std::unique_ptr.
template <auto Function>
struct ANALYTICS_TAG Destroy {
    template <typename T>
    void operator()(T* object) const {
        Function(object);
    }
};
