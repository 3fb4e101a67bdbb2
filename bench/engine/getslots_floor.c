/* The least a host can do for GetSlots with a module opened per operation: open the module
 * (mapped by the first operation and never unmapped, as the host keeps it), initialise it, list
 * the slots with a token and read each slot's and token's information, finalise and close it,
 * every time. Prints the median and the 99th percentile in
 * microseconds of `runs` such operations, then the number of slots listed.
 * Usage: getslots_floor <module path> [runs, default 1000] */
#include <p11-kit/pkcs11.h>

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static long listSlots(const char* path)
{
    void* module = dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (!module)
        return -1;
    CK_C_GetFunctionList getFunctionList = (CK_C_GetFunctionList)dlsym(module, "C_GetFunctionList");
    CK_FUNCTION_LIST_PTR functions = NULL;
    long listed = -1;
    if (getFunctionList && getFunctionList(&functions) == CKR_OK) {
        CK_C_INITIALIZE_ARGS args = {0};
        args.flags = CKF_OS_LOCKING_OK;
        if (functions->C_Initialize(&args) == CKR_OK) {
            CK_SLOT_ID slots[64];
            CK_ULONG count = 0;
            if (functions->C_GetSlotList(CK_TRUE, NULL, &count) == CKR_OK && count <= 64
                && functions->C_GetSlotList(CK_TRUE, slots, &count) == CKR_OK) {
                listed = 0;
                for (CK_ULONG i = 0; i < count; ++i) {
                    CK_SLOT_INFO slotInfo;
                    CK_TOKEN_INFO tokenInfo;
                    if (functions->C_GetSlotInfo(slots[i], &slotInfo) == CKR_OK
                        && functions->C_GetTokenInfo(slots[i], &tokenInfo) == CKR_OK)
                        ++listed;
                }
            }
            functions->C_Finalize(NULL);
        }
    }
    dlclose(module);
    return listed;
}

static double nowUs(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3;
}

static int byValue(const void* a, const void* b)
{
    const double x = *(const double*)a, y = *(const double*)b;
    return x < y ? -1 : x > y;
}

int main(int argc, char** argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: getslots_floor <module path> [runs]\n");
        return 2;
    }
    const int runs = argc > 2 && atoi(argv[2]) > 0 ? atoi(argv[2]) : 1000;
    double* times = malloc(sizeof(double) * (size_t)runs);
    long listed = 0;
    if (!times)
        return 1;
    for (int i = 0; i < runs; ++i) {
        const double start = nowUs();
        listed = listSlots(argv[1]);
        times[i] = nowUs() - start;
        if (listed < 0) {
            fprintf(stderr, "getslots_floor: the module failed\n");
            return 1;
        }
    }
    qsort(times, (size_t)runs, sizeof(double), byValue);
    printf("%.1f %.1f %ld\n", times[runs / 2], times[runs * 99 / 100], listed);
    free(times);
    return 0;
}
