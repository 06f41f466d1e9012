#include "scene.h"

#include <err.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <system_error>

#include "frame.h"
#include "stream_client.h"

namespace tools {

namespace {

namespace fs = std::filesystem;
using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

/** An answer takes little over a second at worst. One that takes longer is counted as missing. */
constexpr std::chrono::seconds kPatience(5);

/** The session's own clock can differ from this program's by a little. */
constexpr std::chrono::milliseconds kStaleAtLeast(980);

/** One line that is written over again on a terminal, and a line now and then anywhere else. */
void showProgress(const Figures& figures) {
    constexpr uint32_t kSparse = 10;
    const bool last = figures.answered() == figures.wanted;
    if (isatty(STDOUT_FILENO) != 0) {
        printf("\r%s: %u of %u frames%s", figures.scene.c_str(), figures.answered(), figures.wanted,
               last ? "\n" : "");
    } else if (last || figures.answered() % kSparse == 0) {
        printf("%s: %u of %u frames\n", figures.scene.c_str(), figures.answered(), figures.wanted);
    }
    fflush(stdout);
}

/** Leaves the line that showProgress() may be writing over. */
void complain(const std::string& scene, const std::string& what) {
    if (isatty(STDOUT_FILENO) != 0) {
        printf("\n");
        fflush(stdout);
    }
    warnx("%s: %s", scene.c_str(), what.c_str());
}

void complain(const std::string& scene, const Answer& answer, const std::string& what) {
    complain(scene, "frame " + std::to_string(answer.frameNumber) + " " + what);
}

/** Waits for the next answer and counts it. Nothing after a sentence on stderr. */
std::optional<Answer> take(StreamClient& client, Figures& figures) {
    std::optional<Answer> answer = client.next(kPatience);
    if (!answer) {
        complain(figures.scene,
                 "nothing came for " + std::to_string(kPatience.count()) + " seconds");
        return answer;
    }
    figures.add(*answer);
    return answer;
}

/** The folder without the pictures of an earlier, longer scene. */
bool prepareFolder(const std::string& name) {
    std::error_code error;
    fs::create_directories(name, error);
    for (fs::directory_iterator file(name, error), end; !error && file != end;
         file.increment(error)) {
        const std::string leaf = file->path().filename().string();
        if (leaf.rfind("frame-", 0) == 0 && file->path().extension() == ".png")
            fs::remove(file->path(), error);
    }
    if (error) warnx("folder %s: %s", name.c_str(), error.message().c_str());
    return !error;
}

std::string pictureName(uint32_t number) {
    char name[32];
    snprintf(name, sizeof(name), "frame-%03u.png", number);
    return name;
}

/** In words, what is wrong with a picture; empty when it is the one that it has to be. */
std::string faultOf(const Answer& answer, const Direction& direction, const Frame& original) {
    if (original.empty()) return "cannot be compared: the file does not give its frame any more";
    const std::string fault =
        difference(answer.frame, direction.turned ? turnedBy180(original) : original);
    if (fault.empty()) return {};
    return std::string("is not the file's frame") + (direction.turned ? ", turned" : "") +
           ": they first differ at " + fault;
}

/** The source takes one frame of its file for each request, but for those that never reach it. */
size_t indexInClip(const Answer& answer, const Figures& figures) {
    const auto notServed =
        std::count_if(figures.failures.begin(), figures.failures.end(),
                      [&](uint32_t number) { return number < answer.frameNumber; });
    return answer.frameNumber - static_cast<size_t>(notServed);
}

void judge(const Answer& answer, const Direction& direction, Nv12File& clip, Figures& figures) {
    const std::string fault = faultOf(answer, direction, clip.frame(indexInClip(answer, figures)));
    if (fault.empty()) return;
    ++figures.wrong;
    complain(direction.name, answer, fault);
}

/** On the disk and on the sheet. False after a sentence on stderr. */
bool keep(const Answer& answer, const Direction& direction, ContactSheet& sheet) {
    sheet.put(answer.frameNumber, answer.frame);
    return writePng(toPicture(answer.frame),
                    fs::path(direction.name) / pictureName(answer.frameNumber));
}

/** Says what became of a request that has no picture to show. */
void explain(const Answer& answer, Figures& figures) {
    if (answer.outcome == Answer::Outcome::Stray) ++figures.wrong;
    const char* const what =
        answer.outcome == Answer::Outcome::Stray     ? "came, but no request for it is under way"
        : answer.outcome == Answer::Outcome::Refused ? "was refused by the session"
                                                     : "came back as an error";
    complain(figures.scene, answer, what);
}

}  // namespace

Played playStream(const sp<IFDSession>& session, const Direction& direction, Nv12File& clip) {
    Played played = {{}, ContactSheet(direction.frames), prepareFolder(direction.name)};
    Figures& figures = played.figures;
    figures.scene = direction.name;
    figures.wanted = direction.frames;

    StreamClient client(session, direction.frames);
    if (!client.start(direction.buffers)) return played;
    while (figures.answered() < direction.frames) {
        const std::optional<Answer> answer = take(client, figures);
        if (!answer) break;
        if (answer->outcome == Answer::Outcome::Filled) {
            judge(*answer, direction, clip, figures);
            played.saved &= keep(*answer, direction, played.sheet);
        } else {
            explain(*answer, figures);
        }
        showProgress(figures);
    }
    figures.asked = client.asked();
    return played;
}

Figures playUnserved(const sp<IFDSession>& session, const std::string& name, uint32_t requests) {
    Figures figures;
    figures.scene = name;
    figures.wanted = requests;

    StreamClient client(session, requests);
    if (!client.start(requests)) return figures;
    while (figures.answered() < requests) {
        const std::optional<Answer> answer = take(client, figures);
        if (!answer) break;
        if (answer->outcome == Answer::Outcome::Failed && answer->latency >= kStaleAtLeast) {
            printf("%s: frame %u came back with an error, in buffer %d, after %.0f ms\n",
                   name.c_str(), answer->frameNumber, static_cast<int>(answer->bufferId),
                   inMilliseconds(answer->latency));
        } else {
            ++figures.wrong;
            complain(name, *answer, "should have come back as an error after a second");
        }
    }
    figures.asked = client.asked();
    return figures;
}

}  // namespace tools
