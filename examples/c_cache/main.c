/* c_cache: digests words slowly, and remembers the digests from one run to the next in an
 * indexed cache. Prints for each word whether its digest was cached, then all entries.
 *
 *   c_cache WORD... */
#include <errno.h>
#include <inttypes.h>
#include <quorvane/cache_c.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const int kRounds = 20000;
static const char kRoundsText[] = "20000";

static int complain(const char* what) {
  fprintf(stderr, "c_cache: %s: %s\n", what, qv_cache_error_text(errno));
  return 1;
}

/* FNV-1a of the word, again and again: something worth remembering. */
static uint64_t digest_of(const char* word) {
  uint64_t digest = 14695981039346656037U;
  for (int round = 0; round < kRounds; ++round) {
    for (const char* at = word; *at != '\0'; ++at) {
      digest = (digest ^ (unsigned char)*at) * 1099511628211U;
    }
  }
  return digest;
}

/* An atom has a size and no end mark. */
static void print_atom(const qv_cache_value_t* value, size_t index) {
  size_t size = 0;
  const char* bytes = qv_cache_atom(value, index, &size);
  printf("%.*s", (int)size, bytes);
}

/* Adds the word with two atoms: its digest, and the number of rounds. Returns -1 on failure. */
static int compute(qv_cache_t* cache, const char* word) {
  char digest[17];
  snprintf(digest, sizeof(digest), "%016" PRIx64, digest_of(word));
  const void* atoms[] = {digest, kRoundsText};
  const size_t sizes[] = {strlen(digest), strlen(kRoundsText)};
  printf("%s computed %s\n", word, digest);
  return qv_cache_add(cache, word, strlen(word), atoms, sizes, 2);
}

static int look_up(qv_cache_t* cache, const char* word) {
  const qv_cache_value_t* value = qv_cache_get(cache, word, strlen(word));
  if (value == NULL) {
    return errno == 0 ? compute(cache, word) : -1; /* 0: there is no such entry */
  }
  printf("%s cached ", word);
  print_atom(value, 0);
  printf("\n");
  return 0;
}

static int print_entry(const void* key, size_t size, const qv_cache_value_t* value, void* closure) {
  (void)closure;
  printf("  %.*s ", (int)size, (const char*)key);
  print_atom(value, 0);
  printf(" after ");
  print_atom(value, 1);
  printf(" rounds\n");
  return 0; /* go on */
}

static int run(qv_cache_t* cache, char** words, int count) {
  for (int i = 0; i < count; ++i) {
    if (look_up(cache, words[i]) < 0) {
      return complain(words[i]);
    }
  }
  /* From here on, every process finds them. */
  if (qv_cache_flush(cache) != 0) {
    return complain("flush");
  }
  printf("%" PRIu64 " entries\n", qv_cache_size(cache));
  return qv_cache_each(cache, &print_entry, NULL) == 0 ? 0 : complain("entries");
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: c_cache WORD...\n");
    return 2;
  }
  /* A null root: that of QV_CACHE_STORE_ROOT. */
  qv_cache_t* cache = qv_cache_open("indexed", NULL, "digests", 0);
  if (cache == NULL) {
    return complain("open");
  }
  const int status = run(cache, argv + 1, argc - 1);
  if (qv_cache_close(cache) != 0) {
    return complain("close");
  }
  return status;
}
