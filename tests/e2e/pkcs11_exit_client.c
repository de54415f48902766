/* Tears a PKCS#11 module down from an exit handler registered before the module was first
 * initialized, as OpenSSL's provider for PKCS#11 tokens does, in the order the scenario names.
 *
 * Usage: pkcs11_exit_client MODULE SCENARIO
 * Prints one line per teardown call, "NAME=0xRV"; exits 0 unless setting up failed. */
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void* library;
static CK_FUNCTION_LIST* p11;
static CK_SESSION_HANDLE session;
static const char* scenario;
static pthread_key_t threadSession;

static void report(const char* name, CK_RV rv) {
    printf("%s=0x%lx\n", name, (unsigned long)rv);
    fflush(stdout);
}

static void fail(const char* what, CK_RV rv) {
    fprintf(stderr, "%s failed: 0x%lx\n", what, (unsigned long)rv);
    exit(2);
}

/* Opens a session and signs once, so that the module holds a key when it is torn down. */
static CK_SESSION_HANDLE openAndSign(void) {
    CK_SESSION_HANDLE opened;
    CK_RV rv = p11->C_OpenSession(0, CKF_SERIAL_SESSION | CKF_RW_SESSION, NULL, NULL, &opened);
    if (rv != CKR_OK) fail("C_OpenSession", rv);
    CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE search = {CKA_CLASS, &keyClass, sizeof keyClass};
    CK_OBJECT_HANDLE key;
    CK_ULONG found = 0;
    if ((rv = p11->C_FindObjectsInit(opened, &search, 1)) != CKR_OK) fail("C_FindObjectsInit", rv);
    if ((rv = p11->C_FindObjects(opened, &key, 1, &found)) != CKR_OK || found != 1)
        fail("C_FindObjects", rv);
    p11->C_FindObjectsFinal(opened);
    CK_MECHANISM ecdsa = {CKM_ECDSA, NULL, 0};
    CK_BYTE digest[32] = {1, 2, 3};
    CK_BYTE signature[256];
    CK_ULONG length = sizeof signature;
    if ((rv = p11->C_SignInit(opened, &ecdsa, key)) != CKR_OK) fail("C_SignInit", rv);
    if ((rv = p11->C_Sign(opened, digest, sizeof digest, signature, &length)) != CKR_OK)
        fail("C_Sign", rv);
    return opened;
}

static void closeAtThreadExit(void* value) {
    report("thread C_CloseSession", p11->C_CloseSession(*(CK_SESSION_HANDLE*)value));
    free(value);
}

static void* threadWork(void* unused) {
    (void)unused;
    CK_SESSION_HANDLE* own = malloc(sizeof *own);
    *own = openAndSign();
    pthread_setspecific(threadSession, own);
    return NULL;
}

static void atExit(void) {
    if (strcmp(scenario, "close-finalize") == 0) {
        report("C_CloseSession", p11->C_CloseSession(session));
        report("C_Finalize", p11->C_Finalize(NULL));
    } else if (strcmp(scenario, "finalize-close") == 0) {
        report("C_Finalize", p11->C_Finalize(NULL));
        report("C_CloseSession", p11->C_CloseSession(session));
    } else if (strcmp(scenario, "close-all") == 0) {
        report("C_CloseAllSessions", p11->C_CloseAllSessions(0));
        report("C_Finalize", p11->C_Finalize(NULL));
    } else if (strcmp(scenario, "finalize-dlclose") == 0) {
        report("C_Finalize", p11->C_Finalize(NULL));
        report("dlclose", (CK_RV)dlclose(library));
    } else if (strcmp(scenario, "dlclose") == 0) {
        report("dlclose", (CK_RV)dlclose(library));
    } else if (strcmp(scenario, "main-dlclose") != 0) {
        report("C_Finalize", p11->C_Finalize(NULL));
    }
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s MODULE SCENARIO\n", argv[0]);
        return 2;
    }
    scenario = argv[2];
    atexit(atExit);
    library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "dlopen: %s\n", dlerror());
        return 2;
    }
    CK_C_GetFunctionList getList = (CK_C_GetFunctionList)dlsym(library, "C_GetFunctionList");
    if (getList == NULL || getList(&p11) != CKR_OK) fail("C_GetFunctionList", CKR_GENERAL_ERROR);
    CK_C_INITIALIZE_ARGS args = {0};
    args.flags = CKF_OS_LOCKING_OK;
    CK_RV rv = p11->C_Initialize(&args);
    if (rv != CKR_OK) fail("C_Initialize", rv);

    if (strcmp(scenario, "initialize-only") != 0) session = openAndSign();
    if (strcmp(scenario, "thread") == 0) {
        pthread_key_create(&threadSession, closeAtThreadExit);
        pthread_t thread;
        pthread_create(&thread, NULL, threadWork, NULL);
        pthread_join(thread, NULL);
    } else if (strcmp(scenario, "main-finalize") == 0) {
        report("main C_Finalize", p11->C_Finalize(NULL));
    } else if (strcmp(scenario, "main-dlclose") == 0) {
        report("main dlclose", (CK_RV)dlclose(library));
    }
    return 0;
}
