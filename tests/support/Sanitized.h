// QUORVEL_SANITIZED: the build has a sanitizer that owns the heap. GCC defines a macro, clang a feature.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUORVEL_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QUORVEL_SANITIZED
#endif
#endif
