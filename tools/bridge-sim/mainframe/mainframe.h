// Simulated VXI mainframe (placeholder until the model lands).
#ifndef BRIDGESIM_MAINFRAME_H
#define BRIDGESIM_MAINFRAME_H

namespace bridgesim {
class Mainframe {};
}  // namespace bridgesim

#endif
