/* The host contract must be usable from C alone. */
#include "qve/host.h"

static int32_t TakesContext(qvefet_Context *context) {
  return context->langHandle == 0 && context->logSource == 0;
}

int32_t host_h_as_c_probe(void);
int32_t host_h_as_c_probe(void) {
  qvefet_Context context = {0, 0};
  sqvejcx_Channel channel = {0, 0, QVE_STREAM_STDOUT};
  return TakesContext(&context) + (int32_t)channel.streamKind +
         QVE_EXC_TIMEOUT;
}
