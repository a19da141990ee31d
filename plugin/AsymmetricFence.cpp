#include "AsymmetricFence.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

long Membarrier(int command)
{
    return syscall(SYS_membarrier, command, 0u);
}

} // namespace

const bool bExpeditedMembarrier = Membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;

void HeavyFence()
{
    std::atomic_thread_fence(std::memory_order_seq_cst);
    // Registered processes cannot see this fail; the full fence above is the fallback anyway.
    if (bExpeditedMembarrier)
        Membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED);
}
