// Temporary weak placeholders so that every subsystem links while the others
// are being written. Each real definition overrides its placeholder; this
// file is removed once every function has its implementation.
#include "kemail.h"
#include <cstdarg>
#pragma GCC diagnostic ignored "-Wunused-parameter"
#define PENDING __attribute__((weak, visibility("default")))
extern "C" {
PENDING int ZvKe_SendEMail(MailAddressInfo* pstAddress, int lAddressCount, MailContentInfo* pstContent, int lContentCount, const char* pszFrom, const char* pszSubject, const char* pszServer, unsigned int ulSplit, SendOptionInfo* pstOption, MailTimeoutInfo* pstTimeout, MailAuthInfo* pstAuth, char* pszMessage) { return {}; }
PENDING int ZvKe_SendEMailPartial_parts(unsigned int ulReserved, MailAddressInfo* pstAddress, int lAddressCount, MailContentInfo* pstContent, int lContentCount, const char* pszFrom, const char* pszSubject, const char* pszServer, unsigned int ulSplit, SendOptionInfo* pstOption, MailTimeoutInfo* pstTimeout, MailAuthInfo* pstAuth, char* pszMessage, const char* pszTempDir) { return {}; }
PENDING TraceHandle* Topen(const char* pszPath, unsigned int ulSizeKb, unsigned int ulLevel) { return nullptr; }
PENDING int Twrite(TraceHandle* pHandle, unsigned int ulLevel, const char* pszCode, const void* pData, unsigned int ulLength) { return {}; }
PENDING int Tclose(TraceHandle* pHandle) { return {}; }
PENDING int GetTraceInfo(const char* pszSection, unsigned int ulUnused, unsigned int* pulSize, unsigned int* pulLevel, unsigned int* pulCount) { return {}; }
PENDING int Trc_GetSizeLevel(const char* pszSection, unsigned int* pulSize, unsigned int* pulLevel) { return {}; }
PENDING void MakeTraceFileName(char* pszOut, unsigned int ulUnused, const char* pszPrefix, unsigned int ulLevel) { }
PENDING int DeleteOldFiles(unsigned int ulUnused, const char* pszPrefix, unsigned int ulKeep, unsigned int ulLevel) { return {}; }
PENDING int DeleteOldFiles_DIR(const char* pszDir, const char* pszPrefix, const char* pszExt, unsigned int ulKeep, unsigned int ulLevel) { return {}; }
PENDING MailLogHandle* MailLogOpen(unsigned int ulUnused) { return nullptr; }
PENDING int MailLogWrite(MailLogHandle* pHandle, int lKind, const char* pszText) { return {}; }
PENDING int MailLogSysErrWrite(MailLogHandle* pHandle, const char* pszFunc, int lResult, long lErrno, const char* pszExtra) { return {}; }
PENDING int MailLogTimeOutWrite(MailLogHandle* pHandle, int lSeconds, int lKind, const char* pszExtra) { return {}; }
PENDING int MailLogClose(MailLogHandle* pHandle) { return {}; }
PENDING void SMTP_SetTimeOutInfo(const SmtpTimeOut* pstTimeOut) { }
PENDING void SMTP_SetTimeOut(unsigned int ulSeconds) { }
PENDING void SMTP_SetStartTime(void) { }
PENDING int SMTP_CheckOverTimeOut(void) { return {}; }
PENDING void SMTP_GetSelectTimeOut(struct timeval* pstTimeVal) { }
PENDING int SMTP_GetTimeDifference(void) { return {}; }
PENDING int SMTP_send(int lSock, const char* pData, int lLength, unsigned int* pulErr) { return {}; }
PENDING int SMTP_recv(int lSock, char* pBuf, int lSize, unsigned int* pulErr) { return {}; }
PENDING int SMTP_returnMessage(int lSock, char* pBuf, int lSize, unsigned int* pulErr) { return {}; }
PENDING void SMTP_GetSmtpSvResponce(char* pszDest) { }
PENDING unsigned int SMTP_resolveHost(const char* pszName, unsigned int* pulErr) { return {}; }
PENDING int SMTP_connect(const char* pszName, unsigned int ulPort, unsigned int* pulErr) { return {}; }
PENDING int SMTP_readEhloReply(int lSock, char* pszCapability, unsigned int* pulErr) { return {}; }
PENDING int SMTP_initialize(int lSock, const MailAuthInfo* pstAuth, unsigned int* pulErr) { return {}; }
PENDING void MD5Init(MD5_CTX* pContext) { }
PENDING void MD5Update(MD5_CTX* pContext, const unsigned char* pInput, unsigned int ulLength) { }
PENDING void MD5Final(unsigned char digest[16], MD5_CTX* pContext) { }
PENDING void hmac_md5(const unsigned char* pText, int lTextLen, const unsigned char* pKey, int lKeyLen, unsigned char digest[16]) { }
PENDING void SMTP_getAuthMechanisms(const char* pszLine, unsigned int* pulMask) { }
PENDING int SMTP_authenticate(int lSock, const AuthCertInfo* pstCert, unsigned int ulServerMask, unsigned int* pulErr) { return {}; }
PENDING int SMTP_authCramMd5(int lSock, const AuthCertInfo* pstCert, unsigned int* pulErr) { return {}; }
PENDING int SMTP_authPlain(int lSock, const AuthCertInfo* pstCert, unsigned int* pulErr) { return {}; }
PENDING int SMTP_authLogin(int lSock, const AuthCertInfo* pstCert, unsigned int* pulErr) { return {}; }
PENDING int Auth_GetCertPlainString(const char* pszUser, const char* pszPassword, char* pszOut) { return {}; }
PENDING int Auth_GetCertLoginString(const char* pszUser, const char* pszPassword, char* pszOutUser, char* pszOutPassword) { return {}; }
PENDING int Auth_GetCertCramString(const char* pszUser, const char* pszPassword, const char* pszChallenge, char* pszOut) { return {}; }
PENDING int Auth_Base64Encode(unsigned char* pIn, char* pszOut, int lLength) { return {}; }
PENDING int Auth_Base64Decode(unsigned char* pOut, const char* pszIn, int lLength) { return {}; }
PENDING int SMTP_MAIL(int lSock, const char* pszFrom, const char* pszTo, unsigned int* pulErr) { return {}; }
PENDING int SMTP_startData(int lSock, unsigned int* pulErr) { return {}; }
PENDING int SMTP_sendData(int lSock, int lFile, unsigned int* pulErr) { return {}; }
PENDING int SMTP_endData(int lSock, unsigned int* pulErr) { return {}; }
PENDING int SMTP_RSET(int lSock, unsigned int* pulErr) { return {}; }
PENDING int SMTP_QUIT(int lSock, unsigned int* pulErr) { return {}; }
PENDING int SMTP_getSendData(int lFile, char* pBuf, int lSizeKb, const char* pszBoundary, unsigned int* pulErr) { return {}; }
PENDING int SMTP_getline(const char* pBuf, int lEnd, char* pszLine, int lSize) { return {}; }
PENDING int SMTP_addline(int lFile, char* pDest, int lCount, unsigned int* pulErr) { return {}; }
PENDING int SMTP_sjistojis(int lCode) { return {}; }
PENDING void SMTP_toISO2022(const char* pszSrc, char* pszDst) { }
PENDING int SMTP_toBase64(unsigned char* pIn, char* pszOut, int lLength) { return {}; }
PENDING void SMTP_makeSubject(const char* pszSubject, char* pszOut) { }
PENDING int SMTP_makeDate(char* pszOut) { return {}; }
PENDING void SMTP_MakeMsgId(char* pszOut) { }
PENDING void SMTP_makeBoundary(char* pszDst) { }
PENDING int SMTP_makeAppendData(int lFile, const char* pszPath, const char* pszBoundary, int lMore, unsigned int* pulErr) { return {}; }
PENDING int SMTP_makeTopData(int lFile, const char* pszBodyPath, const char* pszFrom, const char* pszTo, const char* pszSubject, char* pszBoundary, int lMultipart, int lPartial, unsigned int* pulErr) { return {}; }
PENDING int SMTP_makeid(char* pszId, const char* pszFrom) { return {}; }
PENDING int SMTP_sendData_Partial(int lSock, char* pPiece, int lLength, const char* pszFrom, const char* pszTo, const char* pszSubject, int lNumber, int lTotal, const char* pszId, unsigned int* pulErr) { return {}; }
PENDING iconv_t Cnv_open(const char* pszFrom, const char* pszTo) { return (iconv_t)-1; }
PENDING int Cnv_euctosjis(iconv_t cd, unsigned int ulInLen, const char* pIn, unsigned int ulOutCap, char* pOut, unsigned int* pulOutLen) { return {}; }
PENDING int Cnv_sjistoeuc(iconv_t cd, unsigned int ulInLen, const char* pIn, unsigned int ulOutCap, char* pOut, unsigned int* pulOutLen) { return {}; }
PENDING void Cnv_close(iconv_t cd) { }
PENDING void Cnv_tocode(const char* pszSrc, char* pszDst) { }
PENDING int Pop3_SetTimeOut(unsigned int ulSeconds, TraceHandle* pTrace) { return {}; }
PENDING int Pop3_Connect(const char* pszServer, unsigned int ulPort, int* plErr, TraceHandle* pTrace) { return {}; }
PENDING int Pop3_Login(int lSock, const char* pszUser, const char* pszPassword, char* pszReply, int* plErr, TraceHandle* pTrace) { return {}; }
PENDING int Pop3_STAT(int lSock, char* pszReply, int* plErr, TraceHandle* pTrace) { return {}; }
PENDING int Pop3_Logout(int lSock, char* pszReply, int* plErr, TraceHandle* pTrace) { return {}; }
PENDING ProfileHandle* Com_OpenPrivateProfile(const char* pszPath, unsigned int ulFlags) { return nullptr; }
PENDING ProfileHandle* Com_OpenPrivateProfile2(const char* pszPath, unsigned int ulFlags, int* plErr) { return nullptr; }
PENDING int Com_ClosePrivateProfile(ProfileHandle* pHandle, const char* pszPath) { return {}; }
PENDING int Com_ClosePrivateProfile2(ProfileHandle* pHandle, const char* pszPath, int* plErr) { return {}; }
PENDING int Com_GetPrivateProfileString(ProfileHandle* pHandle, const char* pszSection, const char* pszKey, const char* pszDefault, char* pszOut, unsigned int ulSize) { return {}; }
PENDING int Com_GetPrivateProfileInt(ProfileHandle* pHandle, const char* pszSection, const char* pszKey, int lDefault, const char* pszPath) { return {}; }
PENDING unsigned int Com_GetPrivateProfileIntHex(ProfileHandle* pHandle, const char* pszSection, const char* pszKey, unsigned int ulDefault, const char* pszPath) { return {}; }
PENDING int Com_WritePrivateProfileString(ProfileHandle* pHandle, const char* pszSection, const char* pszKey, const char* pszValue) { return {}; }
PENDING int GetErrorCode(void) { return {}; }
PENDING int FileOpen(const char* pszPath) { return {}; }
PENDING int FileOpenRead(const char* pszPath) { return {}; }
PENDING int FileOpen2(const char* pszPath, int lTruncate) { return {}; }
PENDING long FileRead(int lFile, void* pBuf, size_t ulLength) { return {}; }
PENDING long FileWrite(int lFile, const void* pBuf, size_t ulLength) { return {}; }
PENDING int FileClose(int lFile) { return {}; }
PENDING int FileDelete(const char* pszPath) { return {}; }
PENDING long FileSeek(int lFile, long lOffset, int lOrigin) { return {}; }
PENDING int FileStat(const char* pszPath, struct stat* pstStat) { return {}; }
PENDING long FileSize(int lFile) { return {}; }
PENDING long FileSize_Name(const char* pszPath) { return {}; }
PENDING int FileBackUp(const char* pszPath) { return {}; }
PENDING int RenameFile(const char* pszOld, const char* pszNew) { return {}; }
PENDING DIR* DirectryOpen(const char* pszPath) { return nullptr; }
PENDING struct dirent* DirectryRead(DIR* pDir, struct dirent* pstEntry) { return nullptr; }
PENDING int DirectryClose(DIR* pDir) { return {}; }
PENDING int DirectryMake(const char* pszPath) { return {}; }
PENDING int FileCopy(const char* pszSrcDir, const char* pszDstDir, const char* pszName, const char* pszNewName, ...) { return {}; }
PENDING int CheckString_NotUpLow(const char* pszA, const char* pszB) { return {}; }
PENDING int ExecDelDir(const char* pszPath, int lMaxDepth) { return {}; }
PENDING int ExecCommand(const char* pszCommand) { return {}; }
PENDING void* DLLOpen(const char* pszLibrary) { return nullptr; }
PENDING int DLLClose(void* pLibrary) { return {}; }
PENDING void* DLLGetProcAddress(void* pLibrary, const char* pszSymbol) { return nullptr; }
}
__attribute__((weak, visibility("default"))) uint32_t g_ulPopTimeOut = 60;
extern "C" __attribute__((weak, visibility("default"))) const LangInfo stEucLangInfo[1] = {{0, ""}};
extern "C" __attribute__((weak, visibility("default"))) const LangInfo stSjisLangInfo[1] = {{0, ""}};
