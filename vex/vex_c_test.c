// SPDX-License-Identifier: Apache-2.0
/* A C program that knows nothing but vex.h and libvex.so.0. */
#include "vex/vex.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int failures;

static void expect(int holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "not so: %s\n", what);
    ++failures;
}
#define EXPECT(condition) expect((condition), #condition)

static void callOnNothing(void) {
    vexObject* object = NULL;
    vexSearchHandle* search = NULL;
    vexStringSet* names = NULL;
    char* text = NULL;
    int number = 1;
    EXPECT(vexSetOption(NULL, VEX_OPTION_ZONE_VIEW, &number, sizeof number) == VEX_BROKEN_HANDLE);
    EXPECT(vexLdapSearchOpen(NULL, "", "", "", NULL, 2, -1, 0, &search) == VEX_BROKEN_HANDLE);
    EXPECT(vexLdapSearchNext(NULL, &object) == VEX_BROKEN_HANDLE);
    EXPECT(vexLdapSearchClose(NULL) == VEX_BROKEN_HANDLE);
    EXPECT(vexLdapFetch(NULL, "", "", NULL, &object) == VEX_BROKEN_HANDLE);
    EXPECT(vexLookupObjectByGuid(NULL, "", &object) == VEX_BROKEN_HANDLE);
    EXPECT(vexExpectLookups(NULL, NULL) == VEX_BROKEN_HANDLE);
    EXPECT(vexAuthValidatePlainTextUser(NULL, "u", "p", 0) == VEX_BROKEN_HANDLE);
    EXPECT(vexGetObjectSupportedAttributes(NULL, &names) == VEX_BROKEN_HANDLE);
    EXPECT(vexSystemHealthInfo(NULL, 0, &number, &number, &number, &text) == VEX_BROKEN_HANDLE);
    EXPECT(vexGetLastProtocolError(NULL, &number, &number, &text) == VEX_BROKEN_HANDLE);
    EXPECT(vexSessionClose(NULL) == VEX_BROKEN_HANDLE);
    EXPECT(vexGetAttributeStr(NULL, NULL, AD_CN, &text) == VEX_INVALID_ARGUMENT);
    EXPECT(ChmCloneObject(NULL) == NULL);
    EXPECT(!object && !search && !names && !text && number == 1);
    vexFreeObject(NULL);
    vexFreeString(NULL);
    vexFreeStringSet(NULL);
    vexFreeAttributeBlobList(NULL, 0);
}

static void openWithoutAgent(void) {
    vexSession* session = NULL;
    EXPECT(vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, NULL) == VEX_INVALID_ARGUMENT);
    EXPECT(vexSessionOpen(VEX_SESSION_LOCAL, 1, &session) == VEX_NOT_SUPPORTED);
    EXPECT(vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &session) == VEX_BROKEN_SESSION);
    EXPECT(session == NULL);
}

static void nameCodes(void) {
    const char* text = NULL;
    EXPECT(vexGetVexCodeStr(VEX_WRONG_PASSWORD, &text) == VEX_OK && strcmp(text, "wrong password") == 0);
    EXPECT(vexGetErrSystemStr(VEX_ERR_LDAP, &text) == VEX_OK && strcmp(text, "LDAP") == 0);
}

/* Room for a BerElement, whose layout is liblber's own affair. */
typedef union {
    char bytes[256];
    long alignment;
    void* pointerAlignment;
} ElementBuffer;

/* Encodes with every format letter, by this library and by liblber itself: the bytes are the same. */
static int isSameAs(BerElement* ours, BerElement* theirs) {
    struct berval a = {0, NULL}, b = {0, NULL};
    int same = vex_ber_flatten2(ours, &a, 1) == 0 && ber_flatten2(theirs, &b, 1) == 0;
    same = same && a.bv_len > 0 && a.bv_len == b.bv_len && memcmp(a.bv_val, b.bv_val, a.bv_len) == 0;
    vex_ber_memfree(a.bv_val);
    ber_memfree(b.bv_val);
    return same;
}

static void encode(void) {
    ElementBuffer ourBuffer, theirBuffer;
    BerElement *ours = (BerElement*)&ourBuffer, *theirs = (BerElement*)&theirBuffer;
    struct berval cookie = {3, (char*)"\0ab"};
    struct berval* several[] = {&cookie, &cookie, NULL};
    struct berval array[] = {{3, (char*)"xyz"}, {0, NULL}};
    char* strings[] = {(char*)"one", (char*)"two", NULL};

    vex_ber_init2(ours, NULL, LBER_USE_DER);
    ber_init2(theirs, NULL, LBER_USE_DER);
    EXPECT(vex_ber_printf(ours, "{iO}", 1000, &cookie) == ber_printf(theirs, "{iO}", 1000, &cookie));
    EXPECT(isSameAs(ours, theirs));
    vex_ber_free_buf(ours);
    ber_free_buf(theirs);

    vex_ber_init2(ours, NULL, LBER_USE_DER);
    ber_init2(theirs, NULL, LBER_USE_DER);
#define EVERYTHING                                                                                           \
    "{beits[so]{v}{V}{W}nNtB{}}", 1, 2, -3, (ber_tag_t)0x81, "text", "set", "octets", (ber_len_t)3, strings, \
        several, array, (ber_tag_t)0x82, "\xf0\x0f", 12
    EXPECT(vex_ber_printf(ours, EVERYTHING) == ber_printf(theirs, EVERYTHING));
    EXPECT(isSameAs(ours, theirs));
    vex_ber_free_buf(ours);
    ber_free_buf(theirs);

    vex_ber_init2(ours, NULL, LBER_USE_DER);
    EXPECT(vex_ber_printf(ours, "{y}") == -1);
    EXPECT(vex_ber_printf(ours, "") == 0);
    vex_ber_free_buf(ours);

    char* zeros = vex_ber_memcalloc(4, 2);
    EXPECT(zeros && memcmp(zeros, "\0\0\0\0\0\0\0", 8) == 0);
    vex_ber_memfree(zeros);
    vex_ber_memfree(NULL);
}

int main(void) {
    callOnNothing();
    openWithoutAgent();
    nameCodes();
    encode();
    return failures ? EXIT_FAILURE : EXIT_SUCCESS;
}
