#ifndef COMMON_EXPORT_H_
#define COMMON_EXPORT_H_

// Marks what the shared library exports; everything else is built with hidden visibility.
#define SR_API __attribute__((visibility("default")))

#endif  // COMMON_EXPORT_H_
