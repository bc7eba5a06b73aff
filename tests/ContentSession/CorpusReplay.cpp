// Runs the fuzz targets of the services over their corpora.
#include "support/CorpusReplay.h"

extern "C" {
FuzzTarget FuzzEndpointFile, FuzzLogReply, FuzzSoapReply;
}

TEST(ServiceCorpusReplay, EveryFileWholeAndCut) {
    opal::test::ReplayCorpora({{"endpoint_file", &FuzzEndpointFile},
                               {"log_reply", &FuzzLogReply},
                               {"soap_reply", &FuzzSoapReply}},
                              50);
}
