#pragma once

#include "common/infra/Export.h"
#include "common/infra/Singleton.h"

// Makes an object the process's instance of a service for the lifetime of a scope, then puts the
// instance before it back.
template <typename I, typename T>
class ANALYTICS_TAG Installed {
public:
    explicit Installed(I& instance) : m_previous(Singleton<I, T>::setInstance(&instance)) {}
    ~Installed() { Singleton<I, T>::setInstance(m_previous); }
    Installed(const Installed&) = delete;
    Installed& operator=(const Installed&) = delete;

private:
    I* const m_previous;
};
