// libpq, loaded when a PostgreSQL database is first opened rather than when the program starts: a run
// that never connects does not map the library and the thirty it pulls in (TLS, Kerberos, LDAP), which
// would cost every SQLite run some 6 MiB of memory and the time to bind them. Each libpq function the
// program calls is defined here and passes the call on; libpq's own calls to itself stay inside it.

#include "datasets/DataSet.h"

#include <dlfcn.h>
#include <libpq-fe.h>
#include <string>

namespace kv {
namespace {

void* LibpqSymbol(const char* name) {
    static void* const library = dlopen("libpq.so.5", RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        const char* why = dlerror();
        throw EDatabaseUnwritable("PostgreSQL needs the libpq library (Debian's libpq5 package): " +
                                  std::string(why ? why : "it could not be loaded"));
    }
    void* symbol = dlsym(library, name);
    if (!symbol)
        throw EDatabaseUnwritable("The libpq library lacks " + std::string(name) + ": it is too old");
    return symbol;
}

} // namespace
} // namespace kv

// The function of libpq named like the one being defined, found once.
#define KV_LIBPQ(name) static const auto call = reinterpret_cast<decltype(&::name)>(kv::LibpqSymbol(#name))

extern "C" {

PGconn* PQconnectdb(const char* conninfo) {
    KV_LIBPQ(PQconnectdb);
    return call(conninfo);
}
void PQfinish(PGconn* conn) {
    KV_LIBPQ(PQfinish);
    call(conn);
}
char* PQdb(const PGconn* conn) {
    KV_LIBPQ(PQdb);
    return call(conn);
}
char* PQpass(const PGconn* conn) {
    KV_LIBPQ(PQpass);
    return call(conn);
}
char* PQhost(const PGconn* conn) {
    KV_LIBPQ(PQhost);
    return call(conn);
}
char* PQport(const PGconn* conn) {
    KV_LIBPQ(PQport);
    return call(conn);
}
ConnStatusType PQstatus(const PGconn* conn) {
    KV_LIBPQ(PQstatus);
    return call(conn);
}
PGTransactionStatusType PQtransactionStatus(const PGconn* conn) {
    KV_LIBPQ(PQtransactionStatus);
    return call(conn);
}
char* PQerrorMessage(const PGconn* conn) {
    KV_LIBPQ(PQerrorMessage);
    return call(conn);
}
int PQbackendPID(const PGconn* conn) {
    KV_LIBPQ(PQbackendPID);
    return call(conn);
}
PGresult* PQexec(PGconn* conn, const char* query) {
    KV_LIBPQ(PQexec);
    return call(conn, query);
}
PGresult* PQexecParams(PGconn* conn, const char* command, int nParams, const Oid* paramTypes,
                       const char* const* paramValues, const int* paramLengths, const int* paramFormats,
                       int resultFormat) {
    KV_LIBPQ(PQexecParams);
    return call(conn, command, nParams, paramTypes, paramValues, paramLengths, paramFormats, resultFormat);
}
PGresult* PQprepare(PGconn* conn, const char* stmtName, const char* query, int nParams,
                    const Oid* paramTypes) {
    KV_LIBPQ(PQprepare);
    return call(conn, stmtName, query, nParams, paramTypes);
}
PGresult* PQexecPrepared(PGconn* conn, const char* stmtName, int nParams, const char* const* paramValues,
                         const int* paramLengths, const int* paramFormats, int resultFormat) {
    KV_LIBPQ(PQexecPrepared);
    return call(conn, stmtName, nParams, paramValues, paramLengths, paramFormats, resultFormat);
}
int PQsendQueryPrepared(PGconn* conn, const char* stmtName, int nParams, const char* const* paramValues,
                        const int* paramLengths, const int* paramFormats, int resultFormat) {
    KV_LIBPQ(PQsendQueryPrepared);
    return call(conn, stmtName, nParams, paramValues, paramLengths, paramFormats, resultFormat);
}
PGresult* PQgetResult(PGconn* conn) {
    KV_LIBPQ(PQgetResult);
    return call(conn);
}
int PQenterPipelineMode(PGconn* conn) {
    KV_LIBPQ(PQenterPipelineMode);
    return call(conn);
}
int PQexitPipelineMode(PGconn* conn) {
    KV_LIBPQ(PQexitPipelineMode);
    return call(conn);
}
int PQpipelineSync(PGconn* conn) {
    KV_LIBPQ(PQpipelineSync);
    return call(conn);
}
int PQflush(PGconn* conn) {
    KV_LIBPQ(PQflush);
    return call(conn);
}
int PQputCopyData(PGconn* conn, const char* buffer, int nbytes) {
    KV_LIBPQ(PQputCopyData);
    return call(conn, buffer, nbytes);
}
int PQputCopyEnd(PGconn* conn, const char* errormsg) {
    KV_LIBPQ(PQputCopyEnd);
    return call(conn, errormsg);
}
int PQgetCopyData(PGconn* conn, char** buffer, int async) {
    KV_LIBPQ(PQgetCopyData);
    return call(conn, buffer, async);
}
ExecStatusType PQresultStatus(const PGresult* res) {
    KV_LIBPQ(PQresultStatus);
    return call(res);
}
char* PQresultErrorMessage(const PGresult* res) {
    KV_LIBPQ(PQresultErrorMessage);
    return call(res);
}
char* PQresultErrorField(const PGresult* res, int fieldcode) {
    KV_LIBPQ(PQresultErrorField);
    return call(res, fieldcode);
}
int PQntuples(const PGresult* res) {
    KV_LIBPQ(PQntuples);
    return call(res);
}
int PQnfields(const PGresult* res) {
    KV_LIBPQ(PQnfields);
    return call(res);
}
char* PQcmdTuples(PGresult* res) {
    KV_LIBPQ(PQcmdTuples);
    return call(res);
}
char* PQgetvalue(const PGresult* res, int tup_num, int field_num) {
    KV_LIBPQ(PQgetvalue);
    return call(res, tup_num, field_num);
}
int PQgetlength(const PGresult* res, int tup_num, int field_num) {
    KV_LIBPQ(PQgetlength);
    return call(res, tup_num, field_num);
}
int PQgetisnull(const PGresult* res, int tup_num, int field_num) {
    KV_LIBPQ(PQgetisnull);
    return call(res, tup_num, field_num);
}
void PQclear(PGresult* res) {
    KV_LIBPQ(PQclear);
    call(res);
}
void PQfreemem(void* ptr) {
    KV_LIBPQ(PQfreemem);
    call(ptr);
}

} // extern "C"
