// Placeholder until the overlay port lands: no port has a second output list.
#include "kiv_api_hooks.h"

namespace kiv {
void DisconnectOverlayOutput(KivPortBase*, KivPortBase*) {}
}  // namespace kiv
