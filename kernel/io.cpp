// The layer interface: what a layer does that overrides nothing, and the layer that declines everything.
#include "io.h"

#include <cstring>

#include "buffer.h"

namespace {

// Layers with static storage are built before and destroyed after any other object of the program, and each of
// them refers to the null layer. So that one is initialised by the compiler and never destroyed.
union NullLayer {
  constexpr NullLayer() : layer() {}
  // Trivial on purpose; `= default` would be deleted because the member has a destructor.
  ~NullLayer() {}  // NOLINT(modernize-use-equals-default)
  OSIO layer;
};

}  // namespace

extern "C" {
__attribute__((used)) constinit NullLayer OSNullIO_storage;
}
// The public name is a second symbol for storage without a destructor.
extern OSIO OSNullIO __attribute__((alias("OSNullIO_storage")));

// ---- Parameters --------------------------------------------------------------------------------------------

OSIOParam::~OSIOParam() = default;

OSIOAddress::OSIOAddress(const char* text) : destination() {
  if (text == nullptr) return;
  std::memcpy(destination, text, strnlen(text, sizeof destination - 1));
}

int OSIOAddress::Type() { return 0; }

OSIOAddress::~OSIOAddress() = default;

// ---- Indications -------------------------------------------------------------------------------------------

OSIORetCode OSIO::DataIndication(OSBuf* buf) {
  if (buf != nullptr) buf->Free();
  return NotSupported;
}

OSIORetCode OSIO::DataExpeditedIndication(OSBuf* buf) { return DataIndication(buf); }

OSIORetCode OSIO::DatagramIndication(OSBuf* buf, void*, void*) { return DataIndication(buf); }

OSIORetCode OSIO::ConnectIndication(OSIOAddress*) { return NotSupported; }

OSIORetCode OSIO::DisconnectIndication(OSIOReason, int) { return NotSupported; }

OSIORetCode OSIO::Configure(OSIOParam*) { return NotSupported; }

OSIORetCode OSIO::SetModem(OSIOModem) { return NotSupported; }

OSIORetCode OSIO::GetModem(OSIOModem& modem) {
  modem = static_cast<OSIOModem>(DTR | RTS | DSR | DCD | CTS);
  return NotSupported;
}

OSIORetCode OSIO::RecoverBuffer(OSBuf** buf) {
  if (buf != nullptr) *buf = nullptr;
  return NotSupported;
}

OSIORetCode OSIO::Service(OSIOParam*) { return NotSupported; }

// ---- Binding -----------------------------------------------------------------------------------------------

// UnBind in this class's own form: what a derived class has made of Detach is gone by now.
OSIO::~OSIO() {
  OSIO* const other = Partner();
  if (other != nullptr && other != &OSNullIO) other->Detach();
  OSIO::Detach();
}

void OSIO::Bind(OSIO* other) {
  // Attaching to OSNullIO would leave it pointing at this layer, past this layer's end.
  if (other == nullptr || other == &OSNullIO) {
    UnBind();
    return;
  }
  Attach(other);
  other->Attach(this);
}

void OSIO::UnBind() {
  OSIO* const other = Partner();
  if (other != nullptr && other != &OSNullIO) other->Detach();
  Detach();
}

void OSIO::Attach(OSIO* other) {
  __atomic_store_n(&partner, other == nullptr ? &OSNullIO : other, __ATOMIC_RELEASE);
}

void OSIO::Detach() { OSIO::Attach(nullptr); }
