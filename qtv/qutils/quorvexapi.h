#pragma once

#include "lumicrest.h"

#include <QMetaType>
#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <mutex>

class QProcess;
class QThread;

namespace qutils
{

// The program's status codes and their texts, and the client of the
// integration mode: another program's way to match photos through Quorvex.
class CQuorvexAPI : public QObject
{
    Q_OBJECT

public:
    enum EStatus : qint32
    {
        Invalid = 0,
        Success = 1,
        Fatal = 2,
        CannotWriteToTempFolder = 3,
        BrokenImage = 4,
        BrokenMetadata = 5,
        NotSupportedFormat = 6,
        InconsistentMetadata = 7,
        VariousResolution = 8,
        SmallResolution = 9,
        LargeResolution = 10,
        TooDarkForTrain = 11,
        NoisyTrainImage = 12,
        TooMuchConstantColorAreas = 13,
        CannotStoreFingerprint = 14,
        CannotOpenFingerprint = 15,
        FingerprintFileBroken = 16,
        FingerprintUnsupportedVersion = 17,
        NotInstalled = 18,
        NotActivated = 19,
        OneChannelImage = 20,
        ImageNotJpg = 21,
        ImageFingerprintInconsistentSize = 22,
        DifferentDeviceType = 23,
        AnalysisFailed = 24,
        OverExposedForTrain = 25,
        TooMuchTextureForTrain = 26,
        InconsistentImagesSize = 27,
        CannotCreateFingerprint = 28,
    };

    struct SAnalysisResult
    {
        bool matched = false;
        double probability = 0.0;
        double correlation = 0.0;
        EStatus status = Invalid;
        // The engine's search-corrected PCE, for the command-line tool and the
        // report; not carried by the integration protocol.
        double pce = 0.0;
        // The engine's own account of why a photo could not be compared ("JPEG
        // truncated: ..."), which the status text alone does not give; empty
        // when there is none. Not carried by the integration protocol either.
        QString reason;
        // The factor by which the photo is the fingerprint's image resized
        // (0.8: shrunk to 80 %); 1 for the same size, a crop, or an answer
        // that does not say.
        double scale = 1.0;
        // The clockwise turn (0, 90, 180, 270) and the shift in pixels at
        // which the photo lined up best with the fingerprint.
        int orientation = 0;
        int shiftX = 0;
        int shiftY = 0;
    };

    // The lower-case key ("success"); empty for a code not in the table.
    static QString statusKey(EStatus status);
    // The display text, translated.
    static QString statusText(EStatus status);
    // An unknown key gives Invalid with *ok false.
    static EStatus statusFromKey(const QString& key, bool* ok = nullptr);
    // Values the program does not know become Fatal after a warning in the log.
    static EStatus fromEngineCode(lumicrest_error_code code);

    // The answer marker of the integration protocol.
    static const char* const AnswerMarker;

    // Finds the program (QUORVEX_PROGRAM, beside this executable, the installer's
    // registry entries on Windows, then PATH), starts it with "/integration"
    // and reads its greeting. A server that leaves a request without a fitting
    // answer (no answer in time, an end mid-request, a malformed answer) is
    // killed, so a late answer can never be taken for the next one; the next
    // request starts a new server. When that one does not greet with
    // "success", the state says so and calls give Fatal from then on.
    explicit CQuorvexAPI(QObject* parent = nullptr);
    // Stops the server: "quitQuorvex", then a kill if it does not end in time.
    ~CQuorvexAPI() override;

    EStatus state() const { return m_state.load(); }
    SAnalysisResult match(const QString& fingerprintPath, const QString& photoPath);
    EStatus fingerprintStatus(const QString& fingerprintPath);
    // Which fingerprint file of the folder (and its subfolders) matches the
    // photo: the strongest match, or the nearest fingerprint when none
    // matched, whose path goes to fingerprintPath (empty when the photo was
    // compared with none). The status is 22 when the photo fits no fingerprint.
    SAnalysisResult identify(const QString& libraryFolder, const QString& photoPath,
                             QString* fingerprintPath = nullptr);

    // Where the client looks for the program; empty when it finds none.
    static QString findProgram();
    // Milliseconds the client waits for each line (30000); settable for tests.
    // The same limit applies to the program's start and to its end.
    static void setLineTimeout(int milliseconds);
    static int lineTimeout();

private:
    // Sets the state from the greeting; returns the failure to log, if any.
    QString startServer();
    void killServer(const QString& why);
    // The answer's fields when one came in time and fits the request;
    // otherwise empty, and the server is gone.
    QStringList request(const QString& line, const std::function<bool(const QStringList&)>& fits);
    // "<command>;<fingerprint or library>;<photo>" answered by matched,
    // probability, correlation and status (then at least extraFields more,
    // given back in extra); a path that cannot travel is answered here.
    SAnalysisResult analysisRequest(const QString& command, const QString& fingerprints, const QString& photo,
                                    int extraFields, QStringList* extra = nullptr);
    bool readAnswer(QStringList* fields);
    // Reads the lines that wait unasked for; true when one is an answer.
    bool staleAnswerPending();
    // The process lives on a thread of its own, so any thread may call the
    // client: every use of it runs there, and the caller waits.
    void runOnIoThread(const std::function<void()>& work);

    QProcess* m_process = nullptr;
    std::mutex m_mutex;
    // Set on the I/O thread, read by any.
    std::atomic<EStatus> m_state{Invalid};
    QString m_program;
    QThread* m_ioThread = nullptr;
    class CIoContext;
    CIoContext* m_ioContext = nullptr;
};

} // namespace qutils

Q_DECLARE_METATYPE(qutils::CQuorvexAPI::SAnalysisResult)
