#pragma once

/// How blocks get from the cluster buffers to the decoder.
enum OPALWriterModel : int {
    OPAL_WRITER_MODEL_PUSH = 0,  ///< each writer has a thread and pushes blocks into its sink
    OPAL_WRITER_MODEL_PULL = 1   ///< the application fetches blocks one at a time
};
