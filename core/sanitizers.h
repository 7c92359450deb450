// KV_SANITIZED is 1 in AddressSanitizer and MemorySanitizer builds, where
// the shortcuts that hide memory from the checker (the item arena, leaving
// without teardown) stand aside.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define KV_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer)
#define KV_SANITIZED 1
#endif
#endif
#ifndef KV_SANITIZED
#define KV_SANITIZED 0
#endif

// KV_SANITIZER_ALLOCATOR is 1 where a sanitizer owns malloc and operator new
// (address, thread and memory): a program can't count allocations there by
// replacing them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KV_SANITIZER_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define KV_SANITIZER_ALLOCATOR 1
#endif
#endif
#ifndef KV_SANITIZER_ALLOCATOR
#define KV_SANITIZER_ALLOCATOR 0
#endif
