// A libreplay.so with only the state query and the send; the test reaches its globals by dlsym.

#define STUB_API __attribute__((visibility("default")))

extern "C" {

STUB_API int g_stubState = 0;
STUB_API int g_stubSends = 0;
STUB_API int g_stubLastImmediate = -1;

STUB_API int CGetReplayState(void) {
    return g_stubState;
}

STUB_API int CSendClientData(const void*, unsigned int nBytes, int immediate, unsigned int) {
    ++g_stubSends;
    g_stubLastImmediate = immediate;
    return static_cast<int>(nBytes);
}

}  // extern "C"
