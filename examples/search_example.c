/* search_example.c - the smallest complete host of libsemantic_vector_indexing.
 *
 * It creates the object in memory of its own, ingests a few 512-dimension embeddings under
 * node ids of its choosing, asks for the nodes nearest to a query by brute force, prints them
 * and destroys the object. Exits 0 when the nearest node is the one the query was made from.
 *
 * Build: cc -std=c99 search_example.c -lsemantic_vector_indexing
 */
#define _POSIX_C_SOURCE 200112L /* setenv */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "semantic_vector_indexing.h"

#define N_VECTORS 8
#define K 3

/* A deterministic pseudo-random embedding, so the example needs no data files. */
static void make_embedding(unsigned seed, float* out) {
    unsigned state = seed * 2654435761u + 1u;
    int i;
    for (i = 0; i < ORVE512_DIM; ++i) {
        state = state * 1103515245u + 12345u;
        out[i] = (float)((state >> 8) & 0xffff) / 32768.0f - 1.0f;
    }
}

int main(void) {
    static float vectors[N_VECTORS][ORVE512_DIM];
    static float query_vector[ORVE512_DIM];
    semantic_vector_indexing_system* sys;
    vector_similarity_query query;
    vector_similarity_result results[K];
    uint32_t count = 0;
    uint32_t i;
    int status = 1;

    /* The object's size is only known at run time; malloc's alignment is enough. Its capacity
     * (rows) is read from ORVE_VECTOR_CAPACITY when it is created. */
    sys = (semantic_vector_indexing_system*)calloc(
        1, (size_t)semantic_vector_indexing_system_sizeof());
    if (sys == NULL) return 1;
    setenv("ORVE_VECTOR_CAPACITY", "64", 1);
    if (semantic_vector_indexing_system_create(sys) != 0) {
        fprintf(stderr, "create failed\n");
        free(sys);
        return 1;
    }

    for (i = 0; i < N_VECTORS; ++i) {
        make_embedding(i + 1u, vectors[i]);
        /* Node ids are the host's own; 0 is reserved. */
        if (semantic_vector_indexing_system_add_embedding_orve512(sys, 100u + i, vectors[i]) != 0) {
            fprintf(stderr, "ingesting vector %u failed\n", (unsigned)i);
            goto done;
        }
    }

    /* The query: vector 5 with a little noise. */
    for (i = 0; i < ORVE512_DIM; ++i) {
        query_vector[i] = vectors[5][i] + ((i % 7u) == 0u ? 0.05f : 0.0f);
    }

    /* An all-zero query record plus use_orve512 and a vector asks for a brute-force int8 scan;
     * setting use_ivf or use_hivf (with probe counts) would try the indexes first. */
    memset(&query, 0, sizeof query);
    query.use_orve512 = 1;
    query.query_vector = query_vector;
    query.max_results = K;
    query.min_similarity = -1.0f;
    if (semantic_vector_indexing_system_search_similar(sys, &query, results, &count) != 0) {
        fprintf(stderr, "search failed\n");
        goto done;
    }

    for (i = 0; i < count; ++i) {
        printf("rank %u: node %u, similarity %.4f\n", (unsigned)results[i].rank,
               (unsigned)results[i].node_id, (double)results[i].similarity);
    }
    status = (count == K && results[0].node_id == 105u && results[0].similarity > 0.99f) ? 0 : 1;
    if (status != 0) fprintf(stderr, "unexpected answer\n");

done:
    semantic_vector_indexing_system_destroy(sys);
    free(sys);
    return status;
}
