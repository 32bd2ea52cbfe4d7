/* A C program that uses every C function of the cache: it must compile, link and work.
 * Arguments: the kind and the root of the cache. */
#include <errno.h>
#include <quorvane/cache_c.h>
#include <stdio.h>
#include <string.h>

static const char* const kAtoms[] = {"first", "second"};
static const size_t kSizes[] = {5, 6};

static int add(qv_cache_t* cache, const char* key) {
  return qv_cache_add(cache, key, strlen(key), (const void* const*)kAtoms, kSizes, 2);
}

static const qv_cache_value_t* get(qv_cache_t* cache, const char* key) {
  return qv_cache_get(cache, key, strlen(key));
}

static void print_atoms(const qv_cache_value_t* value) {
  for (size_t i = 0; i < qv_cache_atoms(value); ++i) {
    size_t size = 0;
    const void* atom = qv_cache_atom(value, i, &size);
    printf(" %.*s", (int)size, (const char*)atom);
  }
  printf("\n");
}

static int print_key(const void* key, size_t size, const qv_cache_value_t* value, void* closure) {
  (void)value;
  printf("%s %.*s\n", (const char*)closure, (int)size, (const char*)key);
  return 5;
}

static int use(qv_cache_t* cache) {
  printf("%d entries\n", (int)qv_cache_size(cache));
  if (add(cache, "key") == 1) {
    printf("added key:");
    print_atoms(get(cache, "key"));
  }
  if (add(cache, "key") == 0) {
    printf("already there\n");
  }
  const void* keys[] = {"key"};
  const size_t sizes[] = {3};
  qv_cache_prefetch(cache, keys, sizes, 1);
  const int stopped = qv_cache_each(cache, &print_key, "visited");
  if (get(cache, "none") == NULL) {
    printf("none: %s\n", qv_cache_error_text(errno));
  }
  if (add(cache, "") == -1) {
    printf("refused: %s\n", qv_cache_error_text(errno));
  }
  printf("%d entries\n", (int)qv_cache_size(cache));
  return stopped == 5 && qv_cache_flush(cache) == 0;
}

int main(int argc, char** argv) {
  qv_cache_t* cache = argc == 3 ? qv_cache_open(argv[1], argv[2], "maps", 0) : NULL;
  if (cache == NULL) {
    return 1;
  }
  const int used = use(cache);
  return qv_cache_close(cache) == 0 && used ? 0 : 1;
}
