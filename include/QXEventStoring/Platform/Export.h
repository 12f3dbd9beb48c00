#pragma once

/// Marks what the shared library offers to others; everything else stays hidden.
#define QX_EXPORT __attribute__((visibility("default")))
