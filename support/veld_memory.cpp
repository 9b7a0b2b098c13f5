#include "support/veld_memory.h"

#include <android/log.h>

#include <cstdlib>

VELD_Stack<VELD_Mem_Info*> gMemStack;

namespace {
const char kTag[] = "TAG_MEM";

void logFailedAllocation(const char* format, unsigned long bytes, const char* function, int line) {
  __android_log_print(ANDROID_LOG_ERROR, kTag, format, bytes, function, line);
}
}  // namespace

void* VELD_Malloc_Msg(unsigned int size, const char* function, int line) {
  void* p = malloc(size);
  if (p == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "Failed to allocate %zu bytes in function : %s, Line : %d !",
                        static_cast<size_t>(size), function, line);
  }
  return p;
}

void* VELD_Calloc_Msg(unsigned int count, unsigned int size, const char* function, int line) {
  void* p = calloc(count, size);
  if (p == nullptr) {
    logFailedAllocation("Failed to allocate %lu bytes in function : %s, Line : %d !",
                        static_cast<unsigned long>(count) * size, function, line);
  }
  return p;
}

void VELD_Free_Msg(void* ptr, const char* function, int line) {
  if (ptr == nullptr) {
    __android_log_print(ANDROID_LOG_WARN, kTag,
                        "Trying to free invalid pointer : %p in function : %s, Line : %d !", ptr,
                        function, line);
    return;
  }
  free(ptr);
}

void* VELD_Malloc(unsigned int size, const char* function, int line) {
  void* p = VELD_Malloc_Msg(size, function, line);
  if (p != nullptr) gMemStack.push(p, new VELD_Mem_Info{line, function, size});
  return p;
}

void* VELD_Calloc(unsigned int count, unsigned int size, const char* function, int line) {
  void* p = VELD_Calloc_Msg(count, size, function, line);
  if (p != nullptr) gMemStack.push(p, new VELD_Mem_Info{line, function, count * size});
  return p;
}

void VELD_Free(void* ptr, const char* function, int line) {
  VELD_Mem_Info* info = gMemStack.remove(ptr);
  if (info == nullptr) {
    __android_log_print(ANDROID_LOG_WARN, kTag,
                        "Trying to free invalid pointer : %p in function : %s, Line : %d !", ptr,
                        function, line);
    return;
  }
  delete info;
  free(ptr);
}

void* VELD_New_Mngr(void* object, const char* function, int line) {
  if (object == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "Allocation failed in function : %s, Line : %d !",
                        function, line);
    return nullptr;
  }
  gMemStack.push(object, new VELD_Mem_Info{line, function, 0});
  return object;
}

int VELD_Delete_Mngr(void* object, const char* function, int line) {
  VELD_Mem_Info* info = gMemStack.remove(object);
  if (info == nullptr) {
    __android_log_print(ANDROID_LOG_WARN, kTag,
                        "Trying to delete invalid pointer : %p in function : %s, Line : %d", object,
                        function, line);
    return 0;
  }
  delete info;
  return 1;
}

int VELD_Delete_Array_Mngr(void* array, const char* function, int line) {
  VELD_Mem_Info* info = gMemStack.remove(array);
  if (info == nullptr) {
    __android_log_print(ANDROID_LOG_WARN, kTag,
                        "Trying to delete invalid pointer array: %p in function : %s, Line : %d",
                        array, function, line);
    return 0;
  }
  delete info;
  return 1;
}

void VELD_check_memory_status() {
  if (gMemStack.empty()) {
    __android_log_print(ANDROID_LOG_INFO, kTag, "No memory Leak found ");
    return;
  }
  while (!gMemStack.empty()) {
    VELD_Mem_Info* info = gMemStack.pop();
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "Failed to deallocate %d bytes allocated in function : %s, Line : %d",
                        static_cast<int>(info->size), info->function, info->line);
  }
}
