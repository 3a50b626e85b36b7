#pragma once

// Deletes by a C library's function, for std::unique_ptr.
template <auto Function>
struct Destroy {
    template <typename T>
    void operator()(T* object) const {
        Function(object);
    }
};
