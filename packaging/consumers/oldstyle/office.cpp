#include "office.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "kernel.h"

// ---- The end that is called ----

// A socket that counts what it receives.
class DeskSocket : public AsyncSocket {
 public:
  DeskSocket() : AsyncSocket(true), received(0) {}
  virtual void Receive(OSBuf* buf) {
    received += buf->length;
    AsyncSocket::Receive(buf);
  }

  int received;
};

class DoorSocket : public AsyncSocket {
 public:
  DoorSocket() : AsyncSocket(true) {}
  virtual AsyncSocket* GetNewSocket(int skt) {
    DeskSocket* desk = new DeskSocket;
    desk->Create(SOCK_STREAM, skt);
    return desk;
  }
};

// Answers with what it is sent, in capitals.
class Desk : public OSIO {
 public:
  Desk() : socket(NULL), ended(CreateEvent(NULL, FALSE, FALSE, NULL)) {}
  virtual ~Desk() { CloseHandle(ended); }
  virtual OSIORetCode DataIndication(OSBuf* buf) {
    int i;
    for (i = 0; i < buf->length; i++) buf->data[i] = (UBYTE)toupper(buf->data[i]);
    return partner->DataIndication(buf);
  }
  virtual OSIORetCode DisconnectIndication(OSIOReason, int) {
    SetEvent(ended);
    return Success;
  }

  DeskSocket* socket;
  HANDLE ended;
};

static void Answer(OSObj* obj, ADDR accepted, ULONG) {
  Desk* desk = (Desk*)obj;
  desk->socket = (DeskSocket*)accepted;
  desk->socket->Bind(desk);
  desk->socket->ConnectAck();
}

// ---- The end that calls ----

class Phone : public LineSocket {
 public:
  Phone() : LineSocket(80), lines(0) {
    InitializeCriticalSection(&cs);
    changed = CreateEvent(NULL, FALSE, FALSE, NULL);
    last[0] = 0;
  }
  virtual ~Phone() {
    if (socket != NULL) socket->Free();
    socket = NULL;
    CloseHandle(changed);
    DeleteCriticalSection(&cs);
  }
  virtual OSIORetCode ConnectIndication(OSIOAddress*) {
    Send("hello\r\n");
    SendF("%s %d\r\n", "extension", 7);
    return Success;
  }
  virtual void Receive(char* text) {
    EnterCriticalSection(&cs);
    strncpy(last, text, sizeof(last) - 1);
    last[sizeof(last) - 1] = 0;
    int complete = ++lines == 2;
    LeaveCriticalSection(&cs);
    if (complete) SetEvent(changed);
  }

  CRITICAL_SECTION cs;
  HANDLE changed;
  int lines;
  char last[80];
};

void TryOffice() {
  AsyncSocket::SetPrimaryAddress(0x7F000001);
  DoorSocket* door = new DoorSocket;
  Desk* desk = new Desk;
  int made = door->Create(SOCK_STREAM, 0, 0x7F000001, false);
  int listening = door->Listen(Answer, desk);
  Phone* phone = new Phone;
  phone->Connect("127.0.0.1", door->LocalPort());
  DWORD result = WaitForSingleObject(phone->changed, 10000);
  EnterCriticalSection(&phone->cs);
  printf("office: %d %d %u, %d lines, the last '%s'\n", made, listening, (unsigned)result, phone->lines,
         phone->last);
  LeaveCriticalSection(&phone->cs);
  delete phone;
  result = WaitForSingleObject(desk->ended, 10000);
  printf("office: hung up %u, %d bytes came\n", (unsigned)result,
         desk->socket != NULL ? desk->socket->received : 0);
  if (desk->socket != NULL) desk->socket->Free();
  door->Free();
  delete desk;
}
