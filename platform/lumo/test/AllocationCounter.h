#pragma once
#include <cstddef>

namespace LumoTest {
// Calls of plain operator new so far in this process.
std::size_t allocationCount();
} // namespace LumoTest
