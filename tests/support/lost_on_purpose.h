// Memory that the plugin loses on purpose, told to the leak detection.
#pragma once

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

// What is allocated while one of these lives is not looked for.
struct Lost_On_Purpose {
#ifdef __SANITIZE_ADDRESS__
    Lost_On_Purpose()
    {
        __lsan_disable();
    }
    ~Lost_On_Purpose()
    {
        __lsan_enable();
    }
#else
    Lost_On_Purpose()
    {
    }
#endif
    Lost_On_Purpose(const Lost_On_Purpose &) = delete;
    Lost_On_Purpose &operator=(const Lost_On_Purpose &) = delete;
};
