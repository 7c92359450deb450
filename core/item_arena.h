// Memory for items. A bank opens with thousands of items of a handful of
// sizes, made together and mostly freed together: they are carved from
// 2 MB blocks (transparent huge pages where the kernel allows, so a load
// takes a few page faults instead of thousands) with one free list per size.
// Blocks stay with the process and are reused by later loads.
#pragma once

#include <cstddef>

namespace kv {

void* AllocateItemMemory(std::size_t size);
void FreeItemMemory(void* block, std::size_t size) noexcept;

}  // namespace kv
