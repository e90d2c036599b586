// Whether the buffer pools of this process are as they must be, and what leaves them empty. Without a test
// library, so that fuzz targets ask too.
#ifndef TESTS_SUPPORT_SLAB_CHECK_H
#define TESTS_SUPPORT_SLAB_CHECK_H

#include <string>
#include <vector>

struct BP_SlabBuf;

// What is wrong with a class at this moment, empty if nothing is: free and used buffers are all there are, as
// many are on its list as count as free and, with bFull, none is used.
std::string SlabFault(bool bFull = false);

// Every buffer that the calling thread can get for such a request; and whether all could be given back.
std::vector<BP_SlabBuf *> TakeAll(uint32_t ulSize, uint32_t ulType);
bool FreeAll(const std::vector<BP_SlabBuf *> &apstBuf);

#endif
