// Tracked allocation.
//
// Every raw buffer of the engine comes from these functions, which take the
// calling function's name and a line number as a call-site tag and log to the
// Android log (tag "TAG_MEM") when something goes wrong.
//
//  * The _Msg family only logs failures; it adds nothing to malloc/calloc/free
//    and may be called from any thread. The engine uses it.
//  * VELD_Malloc / VELD_Calloc / VELD_Free and the _Mngr functions also record
//    each live allocation in gMemStack so VELD_check_memory_status() can list
//    what was never released. They are for diagnostics, keep no lock, and must
//    be called from one thread at a time. Lookups are linear in the number of
//    live records.
//
// The function name is stored as a pointer, never copied: pass string literals.
#ifndef SEGCORE_SUPPORT_VELD_MEMORY_H
#define SEGCORE_SUPPORT_VELD_MEMORY_H

// One record per tracked allocation (size 0 for objects registered with
// VELD_New_Mngr).
struct VELD_Mem_Info {
  int line;
  const char* function;
  unsigned int size;
};

// Singly linked stack; the object is just its head pointer. Nodes are pushed at
// the head. Destroying the stack frees its nodes but neither the records nor
// the tracked memory.
template <typename T>
class VELD_Stack {
 public:
  struct Node {
    void* key;
    T value;
    Node* next;
  };

  VELD_Stack() : m_head(nullptr) {}
  ~VELD_Stack() {
    while (m_head != nullptr) {
      Node* n = m_head;
      m_head = n->next;
      delete n;
    }
  }
  VELD_Stack(const VELD_Stack&) = delete;
  VELD_Stack& operator=(const VELD_Stack&) = delete;

  bool empty() const { return m_head == nullptr; }
  void push(void* key, T value) { m_head = new Node{key, value, m_head}; }

  // Unlinks the newest node whose key is `key` and returns its value (the node
  // itself is deleted); returns T() when no node has that key.
  T remove(void* key) {
    Node* prev = nullptr;
    for (Node* n = m_head; n != nullptr; prev = n, n = n->next) {
      if (n->key != key) continue;
      if (prev == nullptr) m_head = n->next; else prev->next = n->next;
      T value = n->value;
      delete n;
      return value;
    }
    return T();
  }

  // Unlinks and deletes the head node and returns its value. Must not be empty.
  T pop() {
    Node* n = m_head;
    m_head = n->next;
    T value = n->value;
    delete n;
    return value;
  }

 private:
  Node* m_head;
};

extern VELD_Stack<VELD_Mem_Info*> gMemStack;

void* VELD_Malloc_Msg(unsigned int size, const char* function, int line);
void* VELD_Calloc_Msg(unsigned int count, unsigned int size, const char* function, int line);
void VELD_Free_Msg(void* ptr, const char* function, int line);

void* VELD_Malloc(unsigned int size, const char* function, int line);
void* VELD_Calloc(unsigned int count, unsigned int size, const char* function, int line);
// Frees ptr only if it was recorded by VELD_Malloc/VELD_Calloc; otherwise logs
// a warning and leaves it alone.
void VELD_Free(void* ptr, const char* function, int line);

// Registers an object created with new / new[]; the object itself is deleted
// by the caller after VELD_Delete_Mngr / VELD_Delete_Array_Mngr, which return 1
// when the record was found and 0 otherwise.
void* VELD_New_Mngr(void* object, const char* function, int line);
int VELD_Delete_Mngr(void* object, const char* function, int line);
int VELD_Delete_Array_Mngr(void* array, const char* function, int line);

// Logs every live record, newest first, and empties the stack. It reports only:
// the leaked memory and the records are left alone.
void VELD_check_memory_status();

#endif
