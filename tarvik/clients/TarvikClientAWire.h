// CTarvikClientAWire: a gateway that programs a microcontroller through its aWire
// one-wire debug and programming interface (device type 14). It configures the
// gateway's programmer, reads, compares and erases target memory and writes blocks of
// flash or the user page.
//
// Block writes are asynchronous: WriteBlock and WriteUserPage only send the block; the
// gateway reports its progress in indications (command 0x0EE1) that the client keeps
// per write handle until GetWriteBlockStatus collects the finished block. WriteFile
// writes a whole memory-image file (Intel HEX, S-records or binary) in the background
// on a file-write thread (CWriteFileThread) and reads it back for comparison; its
// progress is polled with GetWriteFileStatus.
//
// Threads: the application's thread runs the commands, one at a time; while a file
// write runs, its thread issues requests on the same client too. The connection's
// receive thread runs DataIndRespond. The progress map is shared between them under
// its own mutex.
#ifndef TARVIK_CLIENTS_TARVIKCLIENTAWIRE_H
#define TARVIK_CLIENTS_TARVIKCLIENTAWIRE_H

#include "tarvik/core/TarvikClient.h"
#include "tarvik/hexfile/TarvikHexfile.h"
#include "tarvik/protocol/TarvikProtocolAWire.h"
#include "tarvik/runtime/MolSync.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

class TARVIK_API CTarvikClientAWire : public CTarvikClient
{
public:
    enum ECmd
    {
        TARVIK_AWIRE_COMMANDS(TARVIK_PROTOCOL_ENUMERATOR)
    };

    // Result codes of this device (device byte | 14 << 8). All but eResultBusy come
    // from the gateway; eResultBusy is the client's own refusal while a file write exists.
    enum EResult
    {
        eResultFileOpen = 0x000E20,    // "File could not be opened"
        eResultBusy = 0x000E21,        // "A transfer currently is in progress"
        eResultInitFailed = 0x000E22,  // "SetConfig failed to initialize target"
        eResultSizeFailed = 0x000E23,  // "SetConfig failed to read Flash or Page size"
        eResultEraseBlock = 0x000E24,  // "EraseBlock not supported"
        eResultEraseFailed = 0x000E25, // "Failed to erase target"
        eResultReadFailed = 0x000E26,  // "Failed to read data from target"
        // Unknown write handle, no file write, verify mismatch, thread not started.
        eResultUnknown = 255,
    };

    // State of one block write.
    struct Progress
    {
        enum EProgress : int32_t
        {
            eFinished = 0,   // the gateway has programmed the block
            eInProgress = 1, // sent, being programmed
            // any other value: the gateway reports a failure
        };
    };

    // Step of the file write.
    struct FileStep
    {
        enum EFileStep : int32_t
        {
            eFailed = -1,
            eNotStarted = 0,
            eWriting = 1,
            eVerifying = 2,
            eDone = 3,
        };
    };

    // Why the last file write failed (step -1), so that a caller can say what happened.
    struct FileFailure
    {
        enum EFileFailure : int32_t
        {
            eNone = 0,          // no file write failed yet
            eLoad = 1,          // the file could not be loaded
            eWriteRequest = 2,  // a block write could not be sent (m_nResult: its result code)
            eBlockFailed = 3,   // the gateway reported a failed block write (m_nResult: its state)
            eVerifyRead = 4,    // reading back for the comparison failed (m_nResult: its result code)
            eVerifyMismatch = 5 // the target differs from the image
        };
    };
    struct SFileFailure
    {
        FileFailure::EFileFailure m_eCause;
        int m_nResult;       // result code or block state, as the cause says
        uint64_t m_nAddress; // start of the block or piece that failed
    };

    struct SWriteBlockProgress
    {
        Progress::EProgress m_eState;
        unsigned short m_nLength;
        unsigned short m_nDone;
    };

    // Largest chunk that the file write sends in one block write, and the largest
    // piece it compares in one read.
    static constexpr unsigned int kMaxChunk = tarvik_protocol::awire::kMaxChunk;

    // Writes a memory-image file in the background, then compares it with a read-back.
    // Owned by the client: WriteFile creates and starts it, GetWriteFileStatus deletes it
    // once it reports the end.
    class TARVIK_API CWriteFileThread : public CMolThread
    {
    public:
        // Loads the file; a file that cannot be loaded leaves the step at -1.
        CWriteFileThread(CTarvikClientAWire& client, const std::string& filename);
        // Takes a copy of an image that is loaded already; a copy that does not fit in
        // memory leaves the step at -1.
        CWriteFileThread(CTarvikClientAWire& client, const CTarvikHexfile& image);
        // Requests the end and waits for it.
        ~CWriteFileThread() override;

        // Length of the block writes for a page size: the largest multiple of the page
        // size not above 32768 (32768 for pages above it).
        static unsigned short ChunkSize(unsigned int pageSize);

        // Any thread; a value may be a moment old.
        FileStep::EFileStep GetStep() const { return m_eStep.load(); }
        uint64_t GetTotalBytes() const { return m_nTotalBytes.load(); }
        uint64_t GetBytesWritten() const { return m_nBytesWritten.load(); }
        uint64_t GetBlockProgress() const { return m_nBlockProgress.load(); }
        uint64_t GetBytesVerified() const { return m_nBytesVerified.load(); }
        // Why the step became -1; read once the step is -1.
        SFileFailure GetFailure() const;

    protected:
        void Run() override;

    private:
        void WriteData();
        // Sends one block of the image in chunks; false when the writing is to end.
        bool WriteImageBlock(const CTarvikHexfile::SMemoryBlock& block, unsigned short chunk);
        void UpdateStatus();
        // The poll pause: the runtime's shortest sleep, ended early by a progress report.
        void PauseForProgress();
        void VerifyData();
        // Step -1 with its cause; the cause is stored before the step, which others read.
        void Fail(FileFailure::EFileFailure cause, int result, uint64_t address);

        CTarvikClientAWire& m_rClient;
        std::atomic<FileStep::EFileStep> m_eStep;
        CTarvikHexfile m_Hexfile;
        // The client's caller reads these while the thread runs.
        std::atomic<uint64_t> m_nTotalBytes;
        std::atomic<uint64_t> m_nBytesWritten;
        std::atomic<uint64_t> m_nBlockProgress;
        std::atomic<uint64_t> m_nBytesVerified;
        // Write handles sent and not yet seen finished, oldest first.
        std::deque<short> m_dqPendingHandles;
        // Progress reports counted when the thread last looked.
        uint64_t m_nSeenReports;
        // Start addresses of the pending writes, in the order of m_dqPendingHandles.
        std::deque<uint64_t> m_dqPendingAddresses;
        std::atomic<int32_t> m_eFailure;
        std::atomic<int> m_nFailureResult;
        std::atomic<uint64_t> m_nFailureAddress;
    };

    explicit CTarvikClientAWire(int timeoutMs);
    // Stops the connection first, then the file-write thread, if one exists.
    ~CTarvikClientAWire() override;

    // Every operation returns 0 or a result code; a gateway error reads 0x0Exx.

    // Configures the programmer. nPageSize is the target's page size, which the file
    // write uses as its write granularity; the other values and the text (cut at 255
    // bytes) are the gateway's. eResultBusy (nothing sent) while a file write exists.
    int SetConfig(unsigned int nValue1, unsigned int nValue2, unsigned int nPageSize, unsigned int nValue4,
                  const std::string& s);
    // The configuration: the four values only from a successful answer that carries
    // them and its text length; the text only when all of it is there. The page size
    // is remembered for the file write.
    int GetConfig(unsigned int& nValue1, unsigned int& nValue2, unsigned int& nPageSize, unsigned int& nValue4,
                  std::string& s);
    // On success count = min(length, bytes received), copied into buffer (null buffer:
    // nothing copied, count 0); on failure count is left alone. A length whose answer
    // cannot fit a telegram (above 65527) gives 0x920000 without sending.
    int Read(unsigned int address, unsigned short length, char* buffer, unsigned short& count);
    // Reads the range back and compares it with data; 255 on a difference. When the
    // gateway returns fewer bytes than asked, the rest is read again and compared with
    // the beginning of data once more. An answer without any bytes counts as a
    // difference (it would never finish).
    int Verify(unsigned int address, unsigned short length, const char* data);
    // Erases the target; the value is the gateway's.
    int Erase(unsigned short nValue);
    int EraseUserPage();
    // Sends a block to be programmed without waiting; handle receives the write handle
    // (the request's message id) that GetWriteBlockStatus follows. eResultBusy while a
    // file write exists; 0x920000 (nothing sent, handle untouched) for a null data
    // pointer with a length, or a block too long for one telegram (above 65524 bytes).
    int WriteBlock(unsigned int address, unsigned short length, const char* data, short& handle);
    int WriteUserPage(unsigned int address, unsigned short length, const char* data, short& handle);
    // The state of a block write; 255 for an unknown handle. A finished block (state 0)
    // is reported once and then forgotten.
    int GetWriteBlockStatus(short handle, Progress::EProgress& state, unsigned short& length, unsigned short& done);
    // The file write's step and percentage; 255 when none exists. The end (3 done, -1
    // failed, both at 100 %) is reported once; the file write is then gone.
    int GetWriteFileStatus(FileStep::EFileStep& step, unsigned char& percent);
    // Starts writing the file in the background. Without a known page size it asks the
    // gateway first (its failure is returned; a page size still 0 returns 0 with
    // nothing started). eResultBusy while a file write exists; 255 when the thread
    // cannot start. A file that cannot be loaded shows as step -1.
    int WriteFile(const std::string& filename);
    // The same for an image that the caller has loaded (and checked) already: nothing is
    // read from a file, the image is copied. Results as WriteFile.
    int WriteImage(const CTarvikHexfile& image);
    // Why the last file write that ended at step -1 failed; eNone before any did. Kept
    // from the GetWriteFileStatus call that reported the end until the next one does.
    SFileFailure GetWriteFileFailure() const;
    // The page size as last set or read; 0 until then.
    unsigned int GetPageSize() const { return m_nPageSize.load(); }

    // Takes the progress indications of block writes; never takes ownership.
    bool DataIndRespond(CTarvikMsg* msg) override;

protected:
    // The block writes of the file write: the same without the busy test.
    int WriteBlockInternal(unsigned int address, unsigned short length, const char* data, short& handle);
    int WriteUserPageInternal(unsigned int address, unsigned short length, const char* data, short& handle);

private:
    friend class CWriteFileThread;
    // Waits until a progress report newer than seen arrived, at most ms; returns the count.
    uint64_t WaitForProgress(uint64_t seen, unsigned int ms);

    // The common part of WriteFile and WriteImage: the page size, then the thread.
    int StartFileWrite(const std::string* filename, const CTarvikHexfile* image);

    int SendBlock(unsigned char cmd, unsigned int address, unsigned short length, const char* data, short& handle);

    std::map<short, SWriteBlockProgress> m_mapWriteBlockProgress;
    CMolMutex m_oProgressMutex;
    // Progress reports received; the file-write thread waits on it between its polls.
    std::mutex m_oReportMutex;
    std::condition_variable m_oReport;
    // Written under m_oReportMutex; read without it by the short spin before a wait.
    std::atomic<uint64_t> m_nReports;
    CWriteFileThread* m_pWriteFileThread;
    // The file-write thread reads it; GetConfig may change it meanwhile.
    std::atomic<unsigned int> m_nPageSize;
    SFileFailure m_oLastFailure;
};

#endif
