#include <gmock/gmock.h>

// Tests ask for more memory than there is, to see the refusal; a sanitizer would end the program.
// Its runtime finds these by name.
#define OPAL_SANITIZER_OPTIONS extern "C" __attribute__((visibility("default"))) const char*
OPAL_SANITIZER_OPTIONS __asan_default_options() {
    return "allocator_may_return_null=1";
}
OPAL_SANITIZER_OPTIONS __tsan_default_options() {
    return "allocator_may_return_null=1";
}

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
