/* A C99 host: compiles the public header as C and calls the library through the shared
 * object. Exits non-zero on the first mismatch. */
#include <stdio.h>
#include <string.h>

#include "semantic_vector_indexing.h"

#define CHECK(cond) \
    if (!(cond)) return fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond), 1

int main(void) {
    float v[512];
    int8_t codes[512];
    float scale = 0.0f, norm = 0.0f;
    char version[32];

    /* The version and code macros are plain integer constants a C99 host can switch on. */
    snprintf(version, sizeof version, "%d.%d.%d", ORVE_VERSION_MAJOR, ORVE_VERSION_MINOR,
             ORVE_VERSION_PATCH);
    CHECK(strcmp(version, ORVE_VERSION_STRING) == 0);
    CHECK(orve_ivf_paged_open(NULL, NULL) == ORVE_PAGED_OPEN_BAD_ARG);
    CHECK(vector_similarity_query_sizeof() == sizeof(vector_similarity_query));
    CHECK(vector_similarity_result_sizeof() == sizeof(vector_similarity_result));

    memset(v, 0, sizeof v);
    v[3] = 0.5f;
    CHECK(orve_quantize_float_vector_symmetric(v, 512, codes, &scale, &norm) == 0);
    CHECK(scale == 254.0f && norm == 0.5f && codes[3] == 127);
    CHECK(orve_dotprod512_i8(codes, codes) == 127 * 127);
    printf("passed\n");
    return 0;
}
