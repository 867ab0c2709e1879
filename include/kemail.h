/*
 * kemail: send one e-mail over SMTP from a system-management agent.
 *
 * The one public header of libkemail. Valid C (C99 and later) and C++.
 * Every request record, result code, exported global and exported function
 * of the library is declared here.
 */
#ifndef KEMAIL_H
#define KEMAIL_H

#include <stddef.h>
#include <stdint.h>
#include <dirent.h>
#include <iconv.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>

#if defined(KEMAIL_BUILDING)
#define KEMAIL_API __attribute__((visibility("default")))
#else
#define KEMAIL_API
#endif
#ifdef __cplusplus
#define KEMAIL_NOEXCEPT noexcept
#else
#define KEMAIL_NOEXCEPT
#endif

#ifdef __cplusplus
#define KEMAIL_NOEXCEPT noexcept
#else
#define KEMAIL_NOEXCEPT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Public result codes of ZvKe_SendEMail and ZvKe_SendEMailPartial_parts.   */
/* ------------------------------------------------------------------------ */

#define KEMAIL_OK                0     /* accepted by the server */
#define KEMAIL_W_CONVERSION      1     /* accepted; EUC-JP/UTF-8 to Shift_JIS conversion failed */
#define KEMAIL_W_NO_AUTH         2     /* accepted without the SMTP AUTH that was asked for */
#define KEMAIL_E_ARGUMENT        (-1)  /* an argument or record is invalid */
#define KEMAIL_E_NO_MEMORY       (-2)  /* memory could not be allocated */
#define KEMAIL_E_WORK_FILE       (-3)  /* a work file failed; detail: errno */
#define KEMAIL_E_TIMEOUT         (-4)  /* an SMTP phase time-out ran out */
#define KEMAIL_E_RECIPIENT       (-5)  /* the recipient record is invalid */
#define KEMAIL_E_REFUSED         (-6)  /* the SMTP server refused; detail: its reply */
#define KEMAIL_E_SOCKET          (-7)  /* a socket call failed or the peer closed; detail: errno */
#define KEMAIL_E_ATTACHMENT      (-8)  /* an attachment file could not be examined */
#define KEMAIL_E_BUSY            (-9)  /* another send is running in this process */
#define KEMAIL_E_UNREACHABLE     (-10) /* the SMTP server could not be reached; detail: errno */
#define KEMAIL_E_POP_REFUSED     (-15) /* POP before SMTP: log-in or STAT refused; detail: reply */
#define KEMAIL_E_POP_SYSTEM      (-16) /* POP before SMTP: system error; detail: errno */
#define KEMAIL_E_POP_TIMEOUT     (-17) /* POP before SMTP: time-out */
#define KEMAIL_E_POP_UNREACHABLE (-18) /* POP before SMTP: server unreachable; detail: errno */
#define KEMAIL_E_INTERNAL        (-20) /* any other internal failure */
#define KEMAIL_E_AUTH_REFUSED    (-25) /* first MAIL/RCPT refused after every AUTH was refused */
#define KEMAIL_E_NO_AUTH         (-26) /* first MAIL/RCPT refused after no AUTH took place */
#define KEMAIL_E_TLS             (-30) /* TLS asked for (key TLS) could not be established; detail: reason */

/* The caller's message buffer must hold at least this many bytes. */
#define KEMAIL_MESSAGE_SIZE 256

/* Limits of the request records. */
#define KEMAIL_MAX_ADDRESS  256
#define KEMAIL_MAX_SUBJECT  64
#define KEMAIL_MAX_TEXT     10238
#define KEMAIL_MAX_PATH     1024
#define KEMAIL_MAX_USER     64
#define KEMAIL_MAX_PASSWORD 64
#define KEMAIL_MAX_HOST     256

/* Content kinds of MailContentInfo. */
#define KEMAIL_CONTENT_TEXT              2
#define KEMAIL_CONTENT_ATTACHMENT        3
#define KEMAIL_CONTENT_ATTACHMENT_DELETE 4

/* SmtpAuthMode values and AuthCertInfo.ulMechanisms bits. */
#define KEMAIL_AUTH_POP_BEFORE_SMTP 1
#define KEMAIL_AUTH_SMTP            2
#define KEMAIL_MECH_LOGIN           1u
#define KEMAIL_MECH_PLAIN           2u
#define KEMAIL_MECH_CRAM_MD5        4u

/* ------------------------------------------------------------------------ */
/* Request records.                                                         */
/* ------------------------------------------------------------------------ */

typedef struct MailAddressInfo {
    uint32_t ulKind; /* must be 1 */
    uint32_t ulReserved;
    char* pszAddress; /* "a@x,b@y": 1..256 bytes */
} MailAddressInfo;

typedef struct MailContentInfo {
    uint32_t ulKind; /* element 0: 2 (text); then 3 or 4 (attachment) */
    uint32_t ulReserved;
    char* pszData; /* text (may be null) or attachment path */
} MailContentInfo;

typedef struct SendOptionInfo {
    int32_t lPartSize; /* KB per message/partial piece, 10..100 */
    uint32_t ulPort;   /* SMTP port; 0 = service "smtp" or 25 */
} SendOptionInfo;

/* Six phase time-outs in seconds, each 60..3600. */
typedef struct MailTimeoutInfo {
    int32_t lConnect; /* greeting, EHLO/HELO and authentication */
    int32_t lMailFrom;
    int32_t lRcptTo;    /* each RCPT TO */
    int32_t lData;      /* DATA command */
    int32_t lDataBlock; /* each chunk of message data */
    int32_t lDataEnd;   /* end of data */
} MailTimeoutInfo;

typedef struct MailAuthInfo {
    uint32_t SmtpAuthMode; /* 1 POP before SMTP, 2 SMTP AUTH */
    uint32_t ulReserved;
    void* pSettings; /* PopBeforeSmtpInfo* or AuthCertInfo* */
} MailAuthInfo;

typedef struct AuthCertInfo {
    uint32_t ulMechanisms; /* KEMAIL_MECH_* bits */
    char szUser[65];
    char szPassword[65];
} AuthCertInfo;

typedef struct PopBeforeSmtpInfo {
    uint32_t ulPort; /* POP3 port; 0 = service "pop3" or 110 */
    int32_t lWait;   /* milliseconds to wait after the POP session */
    char szUser[65];
    char szPassword[65];
    char szHost[257];
    uint16_t usTimeOut; /* seconds, 60..3600, else 60 */
} PopBeforeSmtpInfo;

/* ------------------------------------------------------------------------ */
/* Send entry points.                                                       */
/* ------------------------------------------------------------------------ */

KEMAIL_API int ZvKe_SendEMail(MailAddressInfo* pstAddress, int lAddressCount,
                              MailContentInfo* pstContent, int lContentCount, const char* pszFrom,
                              const char* pszSubject, const char* pszServer, unsigned int ulSplit,
                              SendOptionInfo* pstOption, MailTimeoutInfo* pstTimeout,
                              MailAuthInfo* pstAuth, char* pszMessage) KEMAIL_NOEXCEPT;

KEMAIL_API int ZvKe_SendEMailPartial_parts(unsigned int ulReserved, MailAddressInfo* pstAddress,
                                           int lAddressCount, MailContentInfo* pstContent,
                                           int lContentCount, const char* pszFrom,
                                           const char* pszSubject, const char* pszServer,
                                           unsigned int ulSplit, SendOptionInfo* pstOption,
                                           MailTimeoutInfo* pstTimeout, MailAuthInfo* pstAuth,
                                           char* pszMessage,
                                           const char* pszTempDir) KEMAIL_NOEXCEPT;

/* Sets one setting beyond the designed behaviour for this process, taking
 * precedence over section KEMAIL of kemail.ini; a null value removes the
 * override. Returns 0, or -1 for an unknown key or a value it does not
 * accept (nothing changes then), so that a caller who asks for TLS from a
 * version without it learns so instead of sending in clear. Keys taken:
 *   INPUT_CHARSET (UTF-8): subject, text and attachment names are UTF-8
 *   TLS (none, starttls, smtps)
 *   TLS_VERIFY (0, 1)
 *   TLS_CA_FILE (a PEM file of trusted roots)
 *   TLS_SERVER_NAME (the host name to verify and send as SNI)
 *   POP_TLS (none, stls, pop3s)
 *   ADDRESS_FAMILY (ipv4, any): any resolves SMTP and POP3 servers to IPv6 and IPv4
 *   PIPELINING (0, 1): 1 pipelines the mail transaction (RFC 2920) when the
 *     server announces it */
KEMAIL_API int ZvKe_SetOption(const char* key, const char* value) KEMAIL_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Trace files.                                                             */
/* ------------------------------------------------------------------------ */

typedef struct TraceHandle {
    int fd;             /* 0 when no file is open */
    unsigned char* map; /* shared mapping of the whole file, or null */
    uint32_t size_kb;
    uint32_t level; /* 0 off, 1 normal, 2 detailed */
} TraceHandle;

/* Output buffer of MakeTraceFileName: 1025 bytes. */
#define KEMAIL_TRACE_NAME_SIZE 1025

KEMAIL_API TraceHandle* Topen(const char* pszPath, unsigned int ulSizeKb,
                              unsigned int ulLevel) KEMAIL_NOEXCEPT;
KEMAIL_API int Twrite(TraceHandle* pHandle, unsigned int ulLevel, const char* pszCode,
                      const void* pData, unsigned int ulLength) KEMAIL_NOEXCEPT;
KEMAIL_API int Tclose(TraceHandle* pHandle) KEMAIL_NOEXCEPT;
KEMAIL_API int GetTraceInfo(const char* pszSection, unsigned int ulUnused, unsigned int* pulSize,
                            unsigned int* pulLevel, unsigned int* pulCount) KEMAIL_NOEXCEPT;
KEMAIL_API int Trc_GetSizeLevel(const char* pszSection, unsigned int* pulSize,
                                unsigned int* pulLevel) KEMAIL_NOEXCEPT;
KEMAIL_API void MakeTraceFileName(char* pszOut, unsigned int ulUnused, const char* pszPrefix,
                                  unsigned int ulLevel) KEMAIL_NOEXCEPT;
KEMAIL_API int DeleteOldFiles(unsigned int ulUnused, const char* pszPrefix, unsigned int ulKeep,
                              unsigned int ulLevel) KEMAIL_NOEXCEPT;
KEMAIL_API int DeleteOldFiles_DIR(const char* pszDir, const char* pszPrefix, const char* pszExt,
                                  unsigned int ulKeep, unsigned int ulLevel) KEMAIL_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Mail log.                                                                */
/* ------------------------------------------------------------------------ */

typedef struct MailLogHandle {
    uint32_t log_size; /* KB at which the file is rotated */
    uint32_t log_num;  /* files kept */
    int fd;
    char path[1028];
} MailLogHandle;

#define KEMAIL_LOG_SENT     1
#define KEMAIL_LOG_RECEIVED 2
#define KEMAIL_LOG_NOTE     3

KEMAIL_API MailLogHandle* MailLogOpen(unsigned int ulUnused) KEMAIL_NOEXCEPT;
KEMAIL_API int MailLogWrite(MailLogHandle* pHandle, int lKind, const char* pszText) KEMAIL_NOEXCEPT;
KEMAIL_API int MailLogSysErrWrite(MailLogHandle* pHandle, const char* pszFunc, int lResult,
                                  long lErrno, const char* pszExtra) KEMAIL_NOEXCEPT;
KEMAIL_API int MailLogTimeOutWrite(MailLogHandle* pHandle, int lSeconds, int lKind,
                                   const char* pszExtra) KEMAIL_NOEXCEPT;
KEMAIL_API int MailLogClose(MailLogHandle* pHandle) KEMAIL_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Exported globals.                                                        */
/* ------------------------------------------------------------------------ */

/* The six phase time-outs in seconds, in the order of MailTimeoutInfo. */
typedef struct SmtpTimeOut {
    uint32_t ulConnect;
    uint32_t ulMailFrom;
    uint32_t ulRcptTo;
    uint32_t ulData;
    uint32_t ulDataBlock;
    uint32_t ulDataEnd;
} SmtpTimeOut;

KEMAIL_API extern TraceHandle* g_trace;
KEMAIL_API extern MailLogHandle* g_pLogHandle;
KEMAIL_API extern uint32_t g_ulSendBusy;
KEMAIL_API extern int Content_D_flg;
KEMAIL_API extern SmtpTimeOut g_stMailTimeout;
KEMAIL_API extern uint32_t g_ulTimeOut;
KEMAIL_API extern time_t g_tStartTime;
KEMAIL_API extern uint32_t g_ulPopTimeOut;

/* ------------------------------------------------------------------------ */
/* Time-out accounting.                                                     */
/* ------------------------------------------------------------------------ */

KEMAIL_API void SMTP_SetTimeOutInfo(const SmtpTimeOut* pstTimeOut) KEMAIL_NOEXCEPT;
KEMAIL_API void SMTP_SetTimeOut(unsigned int ulSeconds) KEMAIL_NOEXCEPT;
KEMAIL_API void SMTP_SetStartTime(void) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_CheckOverTimeOut(void) KEMAIL_NOEXCEPT;
KEMAIL_API void SMTP_GetSelectTimeOut(struct timeval* pstTimeVal) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_GetTimeDifference(void) KEMAIL_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* SMTP transport, connection, authentication and mail transaction.         */
/* ------------------------------------------------------------------------ */

/* Size of the reply buffer every caller passes to SMTP_returnMessage. */
#define KEMAIL_RECV_BUF_SIZE 1028

KEMAIL_API int SMTP_send(int lSock, const char* pData, int lLength,
                         unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_recv(int lSock, char* pBuf, int lSize, unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_returnMessage(int lSock, char* pBuf, int lSize,
                                  unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API void SMTP_GetSmtpSvResponce(char* pszDest) KEMAIL_NOEXCEPT;

KEMAIL_API unsigned int SMTP_resolveHost(const char* pszName, unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_connect(const char* pszName, unsigned int ulPort,
                            unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_readEhloReply(int lSock, char* pszCapability,
                                  unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_initialize(int lSock, const MailAuthInfo* pstAuth,
                               unsigned int* pulErr) KEMAIL_NOEXCEPT;

typedef struct KEMAIL_MD5_CTX {
    uint32_t state[4];
    uint32_t count[2];
    unsigned char buffer[64];
} KEMAIL_MD5_CTX;

KEMAIL_API void MD5Init(KEMAIL_MD5_CTX* pContext) KEMAIL_NOEXCEPT;
KEMAIL_API void MD5Update(KEMAIL_MD5_CTX* pContext, const unsigned char* pInput,
                          unsigned int ulLength) KEMAIL_NOEXCEPT;
KEMAIL_API void MD5Final(unsigned char digest[16], KEMAIL_MD5_CTX* pContext) KEMAIL_NOEXCEPT;
KEMAIL_API void hmac_md5(const unsigned char* pText, int lTextLen, const unsigned char* pKey,
                         int lKeyLen, unsigned char digest[16]) KEMAIL_NOEXCEPT;

KEMAIL_API void SMTP_getAuthMechanisms(const char* pszLine, unsigned int* pulMask) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_authenticate(int lSock, const AuthCertInfo* pstCert, unsigned int ulServerMask,
                                 unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_authCramMd5(int lSock, const AuthCertInfo* pstCert,
                                unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_authPlain(int lSock, const AuthCertInfo* pstCert,
                              unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_authLogin(int lSock, const AuthCertInfo* pstCert,
                              unsigned int* pulErr) KEMAIL_NOEXCEPT;
/* pszOut: at least 4 * ceil((2 * user + password + 2) / 3) + 1 bytes (261 for the limits). */
KEMAIL_API int Auth_GetCertPlainString(const char* pszUser, const char* pszPassword,
                                       char* pszOut) KEMAIL_NOEXCEPT;
/* Each output: 256 bytes. */
KEMAIL_API int Auth_GetCertLoginString(const char* pszUser, const char* pszPassword,
                                       char* pszOutUser, char* pszOutPassword) KEMAIL_NOEXCEPT;
KEMAIL_API int Auth_GetCertCramString(const char* pszUser, const char* pszPassword,
                                      const char* pszChallenge, char* pszOut) KEMAIL_NOEXCEPT;
/* pIn must have 3 writable bytes after lLength. */
KEMAIL_API int Auth_Base64Encode(unsigned char* pIn, char* pszOut, int lLength) KEMAIL_NOEXCEPT;
KEMAIL_API int Auth_Base64Decode(unsigned char* pOut, const char* pszIn,
                                 int lLength) KEMAIL_NOEXCEPT;

KEMAIL_API int SMTP_MAIL(int lSock, const char* pszFrom, const char* pszTo,
                         unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_startData(int lSock, unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_sendData(int lSock, int lFile, unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_endData(int lSock, unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_RSET(int lSock, unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_QUIT(int lSock, unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_getSendData(int lFile, char* pBuf, int lSizeKb, const char* pszBoundary,
                                unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_getline(const char* pBuf, int lEnd, char* pszLine, int lSize) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_addline(int lFile, char* pDest, int lCount,
                            unsigned int* pulErr) KEMAIL_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Message composition.                                                     */
/* ------------------------------------------------------------------------ */

#define KEMAIL_BOUNDARY_SIZE   40
#define KEMAIL_DATE_SIZE       64
#define KEMAIL_MSGID_SIZE      1024
#define KEMAIL_PARTIAL_ID_SIZE 1029

KEMAIL_API int SMTP_sjistojis(int lCode) KEMAIL_NOEXCEPT;
KEMAIL_API void SMTP_toISO2022(const char* pszSrc, char* pszDst) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_toBase64(unsigned char* pIn, char* pszOut, int lLength) KEMAIL_NOEXCEPT;
KEMAIL_API void SMTP_makeSubject(const char* pszSubject, char* pszOut) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_makeDate(char* pszOut) KEMAIL_NOEXCEPT;
KEMAIL_API void SMTP_MakeMsgId(char* pszOut) KEMAIL_NOEXCEPT;
KEMAIL_API void SMTP_makeBoundary(char* pszDst) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_makeAppendData(int lFile, const char* pszPath, const char* pszBoundary,
                                   int lMore, unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_makeTopData(int lFile, const char* pszBodyPath, const char* pszFrom,
                                const char* pszTo, const char* pszSubject, char* pszBoundary,
                                int lMultipart, int lPartial, unsigned int* pulErr) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_makeid(char* pszId, const char* pszFrom) KEMAIL_NOEXCEPT;
KEMAIL_API int SMTP_sendData_Partial(int lSock, char* pPiece, int lLength, const char* pszFrom,
                                     const char* pszTo, const char* pszSubject, int lNumber,
                                     int lTotal, const char* pszId,
                                     unsigned int* pulErr) KEMAIL_NOEXCEPT;

/* Locale table row: kind 1 exact, 2 case-insensitive, 0 end of table. */
typedef struct LangInfo {
    uint32_t ulKind;
    char szName[32];
} LangInfo;

KEMAIL_API extern const LangInfo stEucLangInfo[];
KEMAIL_API extern const LangInfo stSjisLangInfo[];

KEMAIL_API iconv_t Cnv_open(const char* pszFrom, const char* pszTo) KEMAIL_NOEXCEPT;
KEMAIL_API int Cnv_euctosjis(iconv_t cd, unsigned int ulInLen, const char* pIn,
                             unsigned int ulOutCap, char* pOut,
                             unsigned int* pulOutLen) KEMAIL_NOEXCEPT;
KEMAIL_API int Cnv_sjistoeuc(iconv_t cd, unsigned int ulInLen, const char* pIn,
                             unsigned int ulOutCap, char* pOut,
                             unsigned int* pulOutLen) KEMAIL_NOEXCEPT;
KEMAIL_API void Cnv_close(iconv_t cd) KEMAIL_NOEXCEPT;
KEMAIL_API void Cnv_tocode(const char* pszSrc, char* pszDst) KEMAIL_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* POP3 client.                                                             */
/* ------------------------------------------------------------------------ */

/* Reply text buffers passed to the Pop3_ functions: at least 256 bytes;
 * a refused reply is copied cut to 255 bytes and a NUL. */
KEMAIL_API int Pop3_SetTimeOut(unsigned int ulSeconds, TraceHandle* pTrace) KEMAIL_NOEXCEPT;
KEMAIL_API int Pop3_Connect(const char* pszServer, unsigned int ulPort, int* plErr,
                            TraceHandle* pTrace) KEMAIL_NOEXCEPT;
KEMAIL_API int Pop3_Login(int lSock, const char* pszUser, const char* pszPassword, char* pszReply,
                          int* plErr, TraceHandle* pTrace) KEMAIL_NOEXCEPT;
KEMAIL_API int Pop3_STAT(int lSock, char* pszReply, int* plErr,
                         TraceHandle* pTrace) KEMAIL_NOEXCEPT;
KEMAIL_API int Pop3_Logout(int lSock, char* pszReply, int* plErr,
                           TraceHandle* pTrace) KEMAIL_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Private profile (ini) files.                                             */
/* ------------------------------------------------------------------------ */

#define KEMAIL_PROFILE_NAME_SIZE 68 /* section names and keys: up to 67 bytes */
#define KEMAIL_PROFILE_CRLF      0x20u

typedef struct ProfileEntry {
    struct ProfileEntry* next;
    char key[KEMAIL_PROFILE_NAME_SIZE];
    char* value;
} ProfileEntry;

typedef struct ProfileSection {
    struct ProfileSection* next;
    ProfileEntry* entries;
    char name[KEMAIL_PROFILE_NAME_SIZE];
} ProfileSection;

typedef struct ProfileHandle {
    ProfileSection* sections;
    uint32_t flags; /* 0 read-only; KEMAIL_PROFILE_CRLF: CR LF when written */
    uint32_t state; /* 0 unchanged, 1 modified, 2 a change ran out of memory */
} ProfileHandle;

KEMAIL_API ProfileHandle* Com_OpenPrivateProfile(const char* pszPath,
                                                 unsigned int ulFlags) KEMAIL_NOEXCEPT;
KEMAIL_API ProfileHandle* Com_OpenPrivateProfile2(const char* pszPath, unsigned int ulFlags,
                                                  int* plErr) KEMAIL_NOEXCEPT;
KEMAIL_API int Com_ClosePrivateProfile(ProfileHandle* pHandle, const char* pszPath) KEMAIL_NOEXCEPT;
KEMAIL_API int Com_ClosePrivateProfile2(ProfileHandle* pHandle, const char* pszPath,
                                        int* plErr) KEMAIL_NOEXCEPT;
KEMAIL_API int Com_GetPrivateProfileString(ProfileHandle* pHandle, const char* pszSection,
                                           const char* pszKey, const char* pszDefault, char* pszOut,
                                           unsigned int ulSize) KEMAIL_NOEXCEPT;
KEMAIL_API int Com_GetPrivateProfileInt(ProfileHandle* pHandle, const char* pszSection,
                                        const char* pszKey, int lDefault,
                                        const char* pszPath) KEMAIL_NOEXCEPT;
KEMAIL_API unsigned int Com_GetPrivateProfileIntHex(ProfileHandle* pHandle, const char* pszSection,
                                                    const char* pszKey, unsigned int ulDefault,
                                                    const char* pszPath) KEMAIL_NOEXCEPT;
KEMAIL_API int Com_WritePrivateProfileString(ProfileHandle* pHandle, const char* pszSection,
                                             const char* pszKey,
                                             const char* pszValue) KEMAIL_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* File, directory, process and dynamic-loading helpers.                    */
/* Paths longer than 1024 bytes are refused (-1 or null, errno ENAMETOOLONG).*/
/* ------------------------------------------------------------------------ */

KEMAIL_API int GetErrorCode(void) KEMAIL_NOEXCEPT;
KEMAIL_API int FileOpen(const char* pszPath) KEMAIL_NOEXCEPT;
KEMAIL_API int FileOpenRead(const char* pszPath) KEMAIL_NOEXCEPT;
KEMAIL_API int FileOpen2(const char* pszPath, int lTruncate) KEMAIL_NOEXCEPT;
KEMAIL_API long FileRead(int lFile, void* pBuf, size_t ulLength) KEMAIL_NOEXCEPT;
KEMAIL_API long FileWrite(int lFile, const void* pBuf, size_t ulLength) KEMAIL_NOEXCEPT;
KEMAIL_API int FileClose(int lFile) KEMAIL_NOEXCEPT;
KEMAIL_API int FileDelete(const char* pszPath) KEMAIL_NOEXCEPT;
KEMAIL_API long FileSeek(int lFile, long lOffset, int lOrigin) KEMAIL_NOEXCEPT;
KEMAIL_API int FileStat(const char* pszPath, struct stat* pstStat) KEMAIL_NOEXCEPT;
KEMAIL_API long FileSize(int lFile) KEMAIL_NOEXCEPT;
KEMAIL_API long FileSize_Name(const char* pszPath) KEMAIL_NOEXCEPT;
KEMAIL_API int FileBackUp(const char* pszPath) KEMAIL_NOEXCEPT;
KEMAIL_API int RenameFile(const char* pszOld, const char* pszNew) KEMAIL_NOEXCEPT;
KEMAIL_API DIR* DirectryOpen(const char* pszPath) KEMAIL_NOEXCEPT;
KEMAIL_API struct dirent* DirectryRead(DIR* pDir, struct dirent* pstEntry) KEMAIL_NOEXCEPT;
KEMAIL_API int DirectryClose(DIR* pDir) KEMAIL_NOEXCEPT;
KEMAIL_API int DirectryMake(const char* pszPath) KEMAIL_NOEXCEPT;
KEMAIL_API int FileCopy(const char* pszSrcDir, const char* pszDstDir, const char* pszName,
                        const char* pszNewName, ...) KEMAIL_NOEXCEPT;
KEMAIL_API int CheckString_NotUpLow(const char* pszA, const char* pszB) KEMAIL_NOEXCEPT;
KEMAIL_API int ExecDelDir(const char* pszPath, int lMaxDepth) KEMAIL_NOEXCEPT;
KEMAIL_API int ExecCommand(const char* pszCommand) KEMAIL_NOEXCEPT;
KEMAIL_API void* DLLOpen(const char* pszLibrary) KEMAIL_NOEXCEPT;
KEMAIL_API int DLLClose(void* pLibrary) KEMAIL_NOEXCEPT;
KEMAIL_API void* DLLGetProcAddress(void* pLibrary, const char* pszSymbol) KEMAIL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* KEMAIL_H */
