// Runs the fuzz targets over their corpora, which hold what was once found and what is special.
#include "support/CorpusReplay.h"

extern "C" {
FuzzTarget FuzzClusterParser, FuzzStreamHeader, FuzzClusterIndex, FuzzSMILParser, FuzzMIMEParser,
    FuzzHTTPReply, FuzzSettings, FuzzAvcConversion, FuzzAudioConfig, FuzzTextRenderer;
}

TEST(CorpusReplay, EveryFile) {
    opal::test::ReplayCorpora({{"cluster_parser", &FuzzClusterParser},
                               {"stream_header", &FuzzStreamHeader},
                               {"cluster_index", &FuzzClusterIndex},
                               {"smil_parser", &FuzzSMILParser},
                               {"mime_parser", &FuzzMIMEParser},
                               {"http_reply", &FuzzHTTPReply},
                               {"settings", &FuzzSettings},
                               {"avc_conversion", &FuzzAvcConversion},
                               {"audio_config", &FuzzAudioConfig},
                               {"text_renderer", &FuzzTextRenderer}},
                              0);
}
