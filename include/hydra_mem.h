/* Traced allocation: zero-filled blocks and, on request, a list of the allocated blocks.
 *
 * Tracing is decided by the first allocation of the process: it is on when the property "persist.hydra.mem_trace" is
 * exactly "true". Blocks may be allocated and freed by any thread; the first allocation is expected before other
 * threads allocate.
 */
#ifndef HYDRA_MEM_H
#define HYDRA_MEM_H

#include <stddef.h>
#include <stdint.h>

#include "pelmar_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Allocates a zeroed block.
 *
 * size  bytes
 * func  the caller's function name. Kept as a pointer while the block is alive: it must outlive the block
 * line  the caller's source line; not kept
 *
 * Returns the block, to be freed with hydra_free_adv(), or null when there is no memory. */
PELMAR_EXPORT void* hydra_malloc_adv(size_t size, const char* func, int32_t line);

/* Frees a block of hydra_malloc_adv() or malloc(). Null is allowed. `func` and `line` are not used. */
PELMAR_EXPORT void hydra_free_adv(void* ptr, const char* func, int32_t line);

/* Writes the live blocks, oldest first, as one line of text each:
 *
 *     \r\n\t<TraceMemData address="0x…" size="0x…" caller_proc="…" caller_func="…" time="h:m:s dayD, monthM, yearY"/>
 *
 * The address has the prefix 0x, and the C library's own as well where its %p brings one: "0x0x…".
 *
 * buf   zeroed first; holds terminated text afterwards. Null is allowed: nothing is written, as with size 0
 * size  its bytes
 *
 * Returns 1 when all blocks were written (or there are none), 0 when the next one did not fit. Tracing is off while the
 * dump runs: a block allocated meanwhile is not traced, one freed meanwhile stays in the list. */
PELMAR_EXPORT int32_t hydra_mem_trace_dump(char* buf, int32_t size);

#ifdef __cplusplus
}
#endif

#endif
