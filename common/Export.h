#ifndef COMMON_EXPORT_H_
#define COMMON_EXPORT_H_

// Marks what the shared library exports; everything else is built with hidden visibility.
#define SR_API __attribute__((visibility("default")))

// Keeps a type inside an exported class to the library, and with it the templates made of it.
#define SR_HIDDEN __attribute__((visibility("hidden")))

// The public classes have common names: an application, or another library in its process, may have
// a Logger of its own. The linker knows ours as screen_receiver::Logger, so neither gets the
// other's; source code never needs to say it, since the namespace is inline.

#endif  // COMMON_EXPORT_H_
