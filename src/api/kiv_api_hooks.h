// Family-specific steps that the generic graph functions take.
#pragma once

class KivPortBase;

namespace kiv {
// When src is an overlay port, removes dst from its second output list and
// waits briefly for deliveries in flight on that list. No-op otherwise.
void DisconnectOverlayOutput(KivPortBase* src, KivPortBase* dst);
}  // namespace kiv
