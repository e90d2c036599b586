// Whether the buffer pools of this process are as they must be. Without a test library, so that fuzz targets
// ask too.
#ifndef TESTS_SUPPORT_SLAB_CHECK_H
#define TESTS_SUPPORT_SLAB_CHECK_H

#include <cstdint>
#include <string>

// What is wrong with the class at this moment, empty when nothing is: free and used buffers are all there are,
// and as many are on its list as count as free.
std::string SlabFault(uint32_t ulClass);

// The same for all classes, each of which must also have all its buffers.
std::string SlabsNotFull();

#endif
