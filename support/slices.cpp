#include "support/slices.h"

namespace slices {

namespace {
std::atomic<int> g_coreLimit{4};
}  // namespace

int coreLimit() { return g_coreLimit.load(std::memory_order_relaxed); }

void setCoreLimit(int limit) { g_coreLimit.store(limit < 1 ? 1 : limit, std::memory_order_relaxed); }

}  // namespace slices
