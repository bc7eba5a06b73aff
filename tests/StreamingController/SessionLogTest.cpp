// What a session reports to the log: which events, in which order, and with which figures.
#include <boost/property_tree/xml_parser.hpp>
#include <sstream>

#include "Common/OPALVersion.h"
#include "StreamingController/ControllerFixture.h"
#include "support/RecordingLogSender.h"

namespace opal::test {
namespace {

using Levels = RecordingLogSender::Levels;

/// "ts name field field..." of each event; of the configuration and the traces the name alone.
std::vector<std::string> EventsIn(const std::string& document) {
    std::istringstream stream(document);
    boost::property_tree::ptree tree;
    boost::property_tree::read_xml(stream, tree);
    std::vector<std::string> lines;
    for (const auto& [key, action] : tree.get_child("device-event")) {
        const auto& [name, fields] = action.back();
        std::string line = action.get<std::string>("ts") + " " + name;
        for (const auto& field : fields)
            line += name.find("algo-") == 0 ? "" : " " + field.second.data();
        // A rate, while it waits for its first cluster, tells its pause each turn.
        if (lines.empty() || name != "pause" || lines.back() != line)
            lines.push_back(line);
    }
    return lines;
}

class SessionLog : public ControllerFixture {
  protected:
    std::vector<std::string> EventsOf(const Levels& before, const Levels& after) {
        struct Object : LogEventSenderObject {
            bool Accepts(int kind) const override { return kind == ObjectFactory::kArrangedSender; }
            ILogEventSender* Create(const LogEventSenderConfig*, void*) override { return make(); }
            std::function<ILogEventSender*()> make;
        };
        std::string documents;
        const boost::shared_ptr<Object> object(new Object);
        object->make = [&] { return new RecordingLogSender(OPAL_OK, before, after, &documents); };
        ObjectFactory& factory = ObjectFactory::Instance();
        factory.Register(object, true);
        factory.SelectLogEventSender(ObjectFactory::kArrangedSender, nullptr, nullptr);
        HandClock clock;
        Build(false);
        RunSession(clock);
        controller.reset();
        return EventsIn(documents);
    }

  private:
    /// One step ends where the next begins, so that the sequence is always the same.
    void Step(OPALError code, const std::string& event) {
        ASSERT_EQ(OPAL_OK, code) << event;
        ASSERT_TRUE(UntilEvent(event)) << event;
        ASSERT_TRUE(Until([&] {
            return controller->GetState() == StreamingController::CONTROLLER_TRICK ||
                   (controller->switching->IsVideoBuffered() &&
                    controller->switching->IsAudioBuffered());
        })) << event;
        listener.Clear();
    }

    void RunSession(HandClock& clock) {
        FilmShape film;
        film.audioTracks = 2;
        film.subtitleTracks = 1;
        film.trick = true;
        Serve(film);
        ASSERT_EQ(OPAL_OK, Initialize());
        FakePlatform& video = *controller->video;
        controller->switching->maxBuffer = 8000;
        video.AcceptBlocks(0);
        clock.Advance(1500);
        Step(controller->Play(), "OnPlay 1 0 -1");
        controller->switching->level = 1;
        Step(OPAL_OK, "OnVideoLevelChanged 2 0 1");
        clock.Advance(1000);
        video.SetPositionMs(7300);
        Turns(1);
        Step(controller->Pause(), "OnPause");
        Step(controller->Resume(20900), "OnPlay 1 0 -1");
        int64_t position = 30000;
        Step(controller->Seek(position), "OnPlay 1 0 -1");
        Step(controller->SetPlayRate(OPAL_PLAYRATE_FOURXFF), "OnPlayRateChanged 4");
        Step(controller->SetPlayRate(OPAL_PLAYRATE_ONEX), "OnPlay 1 0 -1");
        Step(controller->SetAudioTrack(1), "OnAudioTrackChanged 1");
        Step(controller->SetSubtitleTrack(0), "OnSubtitleTrackChanged 0");
        Step(controller->SetSubtitleTrack(kNone), "OnSubtitleTrackChanged -1");
        const uint64_t held = HoldReads("v1");
        ASSERT_TRUE(UntilHeld(held));
        video.SetBufferedDurationMs(0);
        video.AcceptBlocks(FakePlatform::kAlways);
        ASSERT_TRUE(UntilEvent("OnUnderflow"));
        video.SetBufferedDurationMs(3000);
        video.AcceptBlocks(0);
        server->Release(held);
        Step(OPAL_OK, "OnPlay 1 1 -1");
        Step(controller->Stop(), "OnStop");
        Step(controller->Play(), "OnPlay 1 1 -1");
        const uint64_t failing = server->AddRule(FakeRule::Fail(OPAL_ERROR_HTTP_SERVER, Url("v1")));
        ASSERT_TRUE(UntilEvent("OnError -13 ''"));
        server->Release(failing);
        controller->LeaveLoop();
    }
};

}  // namespace

TEST_F(SessionLog, EveryEventOfASessionInItsOrderAndAtItsLevel) {
    // The first figure is the level.
    const std::string all[] = {"3 0 algo-trace",
                               "2 0 quality-level-change 0 0 1000000",
                               "2 0 algo-config",
                               "1 0 init unknown lowestlevel 0 " OPAL_VERSION_TEXT,
                               "1 1 set-audio-track 40 0",
                               "1 1 play 0 40 -1",
                               "2 1 quality-level-change 1 0 1000000",
                               "1 2 pause 7",
                               "1 2 resume 20",
                               "1 2 play 1 40 -1",
                               "1 2 play 1 40 -1",
                               "1 2 pause 7",
                               "1 2 set-play-rate 4x 7",
                               "1 2 play 1 40 -1",
                               "1 2 set-audio-track 41 7",
                               "1 2 pause 7",
                               "1 2 set-subtitle-track 50 7",
                               "1 2 set-subtitle-track -1 7",
                               "2 2 underflow 1 7",
                               "1 2 play 1 41 -1",
                               "1 2 stop 7",
                               "1 2 play 1 41 -1",
                               "2 2 error -13",
                               "1 2 stop 7"};
    const std::pair<Levels, Levels> rows[] = {{{true, false, false}, {true, true, true}},
                                              {{false, false, true}, {true, false, false}}};
    for (const auto& [before, after] : rows) {
        // The first event brings the connection about, and is the only one before it.
        std::vector<std::string> expected;
        for (const std::string& event : all) {
            if ((&event == all ? before : after)[static_cast<size_t>(event[0] - '1')])
                expected.push_back(event.substr(2));
        }
        EXPECT_EQ(EventsOf(before, after), expected);
    }
}

}  // namespace opal::test
