#pragma once

#include <string>

// What the figures were taken on: processor, their number, kernel, and how busy it is right now.
std::string describeMachine();
