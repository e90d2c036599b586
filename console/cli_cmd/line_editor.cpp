#include "console/cli_cmd/line_editor.h"

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "console/cli_cmd/history.h"
#include "console/cli_cmd/terminal.h"

static constexpr int CLI_KEY_TAB = '\t';
static constexpr int CLI_KEY_ENTER = '\r';
static constexpr int CLI_KEY_ESC = 0x1B;
static constexpr int CLI_KEY_BACKSPACE = 0x08;
static constexpr int CLI_KEY_DELETE = 0x7F;
static constexpr int CLI_SEQUENCE_WAIT_MS = 25; // for each further byte of an escape sequence
static constexpr char g_szErase[] = "\b \b";

char g_szLineBuf[CLI_LINE_SIZE];
char g_szSysPrompt[CLI_PROMPT_SIZE] = "MWare";

static bool g_bInputEnded;

bool CLI_IsInputEnded() {
    return g_bInputEnded;
}

char CLI_LastChar(const char *pcText) {
    const size_t ulLen = strlen(pcText);
    return ulLen == 0 ? '\0' : pcText[ulLen - 1];
}

// Waits for a byte on the terminal, at most lTimeoutMs. The console may have been stopped in a signal handler,
// here or since the last wait.
static void CLI_AwaitKey(int lTimeoutMs) {
    struct pollfd stPoll = {STDIN_FILENO, POLLIN, 0};
    do {
        if (CLI_WasStopped()) {
            printf("\r\n%s%s", g_szSysPrompt, g_szLineBuf);
            fflush(stdout);
        }
    } while (poll(&stPoll, 1, lTimeoutMs) < 0 && errno == EINTR);
}

// The stream's next byte without waiting: EOF if there is none, 0 if non-blocking mode could not be switched.
static int CLI_ReadWithoutWaiting() {
    const int lFlags = fcntl(STDIN_FILENO, F_GETFL);
    if (lFlags == -1 || fcntl(STDIN_FILENO, F_SETFL, lFlags | O_NONBLOCK) == -1) {
        return 0;
    }
    const int lKey = getc(stdin);
    clearerr(stdin); // "nothing there yet" must not be remembered as the end of input
    return fcntl(STDIN_FILENO, F_SETFL, lFlags) == -1 ? 0 : lKey;
}

static int CLI_ReadPending() {
    // The flag is the terminal's, not the console's: the shell would find it if a signal ended or stopped the
    // console here. One that comes to another thread is passed on to this one, and waits.
    sigset_t stAll;
    sigset_t stOld;
    sigfillset(&stAll);
    pthread_sigmask(SIG_BLOCK, &stAll, &stOld);
    const int lKey = CLI_ReadWithoutWaiting();
    pthread_sigmask(SIG_SETMASK, &stOld, nullptr);
    return lKey;
}

uint8_t CLI_ReadPendingChar() {
    return static_cast<uint8_t>(CLI_ReadPending());
}

// The next byte, EOF when input has ended. What was echoed must be on the screen before the wait. The wait does
// not see a byte that was put back into the stream, so the stream is asked first. A 0 is no key.
static int CLI_ReadKey() {
    fflush(stdout);
    int lKey = CLI_ReadPending();
    while (lKey <= 0) {
        CLI_AwaitKey(-1);
        errno = 0;
        lKey = getc(stdin);
        // Interrupted, or another program made the terminal non-blocking and another reader was first.
        const bool bAgain = ferror(stdin) != 0 && (errno == EINTR || errno == EAGAIN);
        clearerr(stdin);
        if (lKey == EOF && !bAgain) {
            return EOF;
        }
    }
    return lKey;
}

// Over a slow line the bytes of one key come one by one; a lone ESC has nothing behind it.
static uint8_t CLI_ReadSequenceChar() {
    CLI_AwaitKey(CLI_SEQUENCE_WAIT_MS);
    return CLI_ReadPendingChar();
}

static void CLI_StoreKey(size_t *pulCursor, int lKey) {
    if (*pulCursor < CLI_LINE_SIZE - 1) {
        g_szLineBuf[(*pulCursor)++] = static_cast<char>(lKey);
        g_szLineBuf[*pulCursor] = '\0';
    } else {
        fputs(g_szErase, stdout);
    }
}

static void CLI_EraseKey(size_t *pulCursor) {
    if (*pulCursor != 0) {
        g_szLineBuf[--*pulCursor] = '\0';
        fputs(g_szErase, stdout);
    }
}

// TAB and '?' end the line behind themselves: the Enter that does so is put back to be read next.
static void CLI_StoreHelpKey(size_t *pulCursor, int lKey) {
    ungetc(CLI_KEY_ENTER, stdin);
    CLI_StoreKey(pulCursor, lKey);
}

static void CLI_ShowRecalled(const char *pcLine, size_t *pulCursor) {
    if (pcLine == nullptr) {
        return;
    }
    printf("\r%s%*s\r%s%s", g_szSysPrompt, static_cast<int>(strlen(g_szLineBuf)), "", g_szSysPrompt, pcLine);
    snprintf(g_szLineBuf, sizeof(g_szLineBuf), "%s", pcLine);
    *pulCursor = strlen(g_szLineBuf);
}

// Decodes what follows an ESC. Only the arrows up and down mean something; the rest of a sequence that is
// longer than the forms known here is read as ordinary input.
static void CLI_EditEscape(size_t *pulCursor) {
    uint8_t ucKey = CLI_ReadSequenceChar();
    if (ucKey == 'O' || ucKey == '[') {
        ucKey = CLI_ReadSequenceChar();
    }
    if (ucKey >= '1' && ucKey <= '9') {
        const uint8_t ucNext = CLI_ReadSequenceChar();
        if (ucNext >= '0' && ucNext <= '9') {
            CLI_ReadSequenceChar();
        }
        return;
    }
    if (ucKey == 'A') {
        CLI_ShowRecalled(CLI_RecallOlder(), pulCursor);
    } else if (ucKey == 'B') {
        CLI_ShowRecalled(CLI_RecallNewer(), pulCursor);
    }
}

static void CLI_EditKey(size_t *pulCursor, int lKey) {
    switch (lKey) {
    case CLI_KEY_ESC:
        CLI_EditEscape(pulCursor);
        return;
    case CLI_KEY_BACKSPACE:
    case CLI_KEY_DELETE:
        CLI_EraseKey(pulCursor);
        return;
    case CLI_KEY_TAB:
        CLI_StoreHelpKey(pulCursor, lKey);
        return;
    case '?':
        putchar(lKey);
        CLI_StoreHelpKey(pulCursor, lKey);
        return;
    default:
        if (isprint(lKey)) {
            putchar(lKey);
            CLI_StoreKey(pulCursor, lKey);
        }
    }
}

void CLI_ReadLine() {
    size_t ulCursor = strnlen(g_szLineBuf, sizeof(g_szLineBuf) - 1);
    g_szLineBuf[ulCursor] = '\0';
    int lKey = CLI_ReadKey();
    while (lKey != CLI_KEY_ENTER && lKey != EOF) {
        CLI_EditKey(&ulCursor, lKey);
        lKey = CLI_ReadKey();
    }
    if (lKey == EOF) {
        g_bInputEnded = true;
        g_szLineBuf[0] = '\0';
        return;
    }
    CLI_SaveHistory(g_szLineBuf);
}
