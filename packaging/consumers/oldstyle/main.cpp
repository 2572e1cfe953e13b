// A program as they were written when this library was young: short names of the headers, char* everywhere, NULL,
// classes that override whatever they need, critical sections and events. It is compiled as it stands, and prints what
// is in expected.txt.

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "btree.h"
#include "buffer.h"
#include "io.h"
#include "kernel.h"
#include "link.h"
#include "office.h"
#include "task.h"
#include "trigger.h"

// ---- The console ----

class Terminal : public OSConsole {
 public:
  Terminal(char* typed) : input(typed), warnings(0) {}
  virtual void vPrint(const char*, va_list) {}
  virtual void Warning(const char*, ...) { warnings++; }
  virtual void Fatal(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
  }
  virtual int Getc() { return *input != 0 ? *input++ : -1; }

  char* input;
  int warnings;
};

static void TryConsole(Terminal* terminal) {
  char line[40];
  int result = Console->Gets(line, sizeof(line), NULL);
  Console->Warning("the line is %s", line);
  printf("console: %d, '%s', %d warning\n", result, line, terminal->warnings);
}

// ---- A task ----

class Clerk : public OSTask {
 public:
  Clerk() : OSTask(4, 16000, NULL, NULL), timer(0, 1) {
    InitializeCriticalSection(&lock);
    thread_event = CreateEvent(NULL, FALSE, FALSE, NULL);
    idle = CreateEvent(NULL, FALSE, FALSE, NULL);
    jobs = 0;
    stop = 0;
    timer.SetTask(this);
    _LockDelete();
    LeaveCriticalSection(&cs);
  }
  virtual ~Clerk() {
    EnterCriticalSection(&lock);
    stop = 1;
    LeaveCriticalSection(&lock);
    SetEvent(thread_event);
    Kill();
    CloseHandle(idle);
    DeleteCriticalSection(&lock);
  }
  virtual void Main() {
    for (;;) {
      Snooze();
      timer.SetTimer(1);
      WaitForSingleObject(thread_event, 0xFFFFFFFF);
      EnterCriticalSection(&lock);
      int ending = stop;
      int done = ++jobs;
      LeaveCriticalSection(&lock);
      if (ending) return;
      if (done == 3) SetEvent(idle);
    }
  }

  CRITICAL_SECTION lock;
  HANDLE idle;
  int jobs;
  int stop;
  OSTimerTrigger timer;
};

static void TryTask() {
  Clerk* clerk = new Clerk;
  DWORD result = WaitForSingleObject(clerk->idle, 10000);
  delete clerk;
  printf("task: %u, three jobs by the timer\n", (unsigned)result);
}

// ---- Kinds of triggers ----

class LevelTrigger : public OSTrigger {
 public:
  LevelTrigger(int* watched) : OSTrigger(OS_TA_FUNC), level(watched), waits(0) {}
  virtual void Check() {
    if (*level > 10) Activate();
  }

  int* level;
  int waits;

 protected:
  virtual void Wait() {
    waits++;
    OSTrigger::Wait();
  }
};

class CountedQTrigger : public OSQTrigger {
 public:
  CountedQTrigger(OSQueue* queue) : OSQTrigger(queue, 2, 0, 0), actions(0) {}
  int actions;

 protected:
  virtual void Actioned() {
    actions++;
    OSQTrigger::Actioned();
  }
};

static void Signal(OSObj*, ADDR, ULONG value) { SetEvent((HANDLE)value); }

static BOOL IsDue(OSTrigger*, OSObj*, ADDR due, ULONG) { return *(int*)due; }

static void TryTriggers() {
  HANDLE event = CreateEvent(NULL, FALSE, FALSE, NULL);
  int level = 3;
  LevelTrigger* trigger = new LevelTrigger(&level);
  trigger->SetCallback(Signal, NULL, NULL, (ULONG)event);
  trigger->Clear();
  DWORD early = WaitForSingleObject(event, 0);
  level = 11;
  trigger->Clear();
  DWORD late = WaitForSingleObject(event, 10000);
  printf("own trigger: %u, then %u, armed %d times\n", (unsigned)early, (unsigned)late, trigger->waits);
  delete trigger;

  OSProtectedQueue* queue = new OSProtectedQueue;
  CountedQTrigger* arrival = new CountedQTrigger(queue);
  arrival->SetCallback(Signal, NULL, NULL, (ULONG)event);
  queue->Append(OSBuf::Alloc("one"));
  early = WaitForSingleObject(event, 0);
  queue->Append(OSBuf::Alloc("two"));
  late = WaitForSingleObject(event, 10000);
  printf("queue trigger: %u, then %u, %d action\n", (unsigned)early, (unsigned)late, arrival->actions);
  arrival->Cancel();
  delete arrival;
  while (queue->Size() > 0) queue->FirstBufAndRemove()->Free();
  delete queue;

  int due = 1;
  OSTimerTrigger* tick = new OSTimerTrigger(10, 0);
  OSPollTrigger* poll = new OSPollTrigger(IsDue, NULL, &due, 0);
  poll->SetCallback(Signal, NULL, NULL, (ULONG)event);
  poll->Clear();
  printf("poll trigger: %u\n", (unsigned)WaitForSingleObject(event, 10000));
  delete poll;
  delete tick;
  CloseHandle(event);
}

// ---- Layers ----

class Header : public OSIO {
 public:
  virtual OSIORetCode DataIndication(OSBuf* buf) {
    buf->PushData((UWORD)buf->length);
    return partner->DataIndication(buf);
  }
};

class Bottom : public OSIO {
 public:
  virtual OSIORetCode DataIndication(OSBuf* buf) {
    UWORD length = buf->PullWord();
    printf("layers: %d bytes, %.*s\n", length, (int)buf->length, (char*)buf->data);
    buf->Free();
    return Success;
  }
  virtual OSIORetCode Configure(OSIOParam* param) {
    printf("layers: configured with %s\n", ((OSIOAddress*)param)->destination);
    return Success;
  }
};

static void TryLayers() {
  Header header;
  Bottom bottom;
  header.Bind(&bottom);
  OSIOAddress line("line 3");
  bottom.Configure(&line);
  header.DataIndication(OSBuf::Alloc("a message"));
}

// ---- Lists and the tree ----

class Subscriber : public OSLinkListObj, public OSBTreeObj {
 public:
  Subscriber(char* subscriber_name) { name = sp_strdup(subscriber_name); }
  virtual ~Subscriber() { free(name); }
  virtual BOOL IsKey(char* key) { return strcmp(key, name) == 0; }
  virtual int Compare(OSBTreeObj* node) { return strcmp(name, ((Subscriber*)node)->name); }
  virtual int CompareLeft(OSBTreeObj* node) { return strncmp(name, ((Subscriber*)node)->name, strlen(name)); }

  char* name;
};

static void TryContainers() {
  OSLinkList list;
  OSBTree tree;
  char* names[] = {"north", "south", "east"};
  int i;
  for (i = 0; i < 3; i++) {
    Subscriber* subscriber = new Subscriber(names[i]);
    list.Append(subscriber);
    tree.Add(subscriber);
  }
  Subscriber key("so");
  printf("containers: position %d, first %s, found %s\n", list.Search("east"),
         ((Subscriber*)tree.First())->name, ((Subscriber*)tree.FindLeft(&key))->name);
  while (list.Size() > 0) {
    Subscriber* subscriber = (Subscriber*)(OSLinkListObj*)list.FirstObject();
    tree.Remove(subscriber);
    list.Remove(subscriber);
    delete subscriber;
  }
}

int main() {
  Terminal terminal("dial 42\r");
  Console = &terminal;
  os_startup(NULL, 0, NULL);
  TryConsole(&terminal);
  TryTask();
  TryTriggers();
  TryLayers();
  TryContainers();
  TryOffice();
  AsyncSocket::Cleanup();
  os_cleanup();
  return 0;
}
