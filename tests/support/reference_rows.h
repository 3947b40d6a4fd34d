// The row loop every reference part function runs: the part's rows in order,
// one progress step after each, stopping after the row during which a cancel
// was requested.
#pragma once

#include "imaging/mp_filter.h"

namespace rawfx::reference {

template <class Row>
void ForEachRow(const MPParamBlock& part, GenericMPParams& head, Row row) {
  int32_t y = part.firstRow;
  while (y < part.endRow) {
    row(y);
    ++y;
    if (!FinishRow(head)) return;
  }
}

}  // namespace rawfx::reference
