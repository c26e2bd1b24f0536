// The device core and abort programs: links, writes into the instrument, reads out of it, status, clear, locks.
#include <algorithm>
#include <chrono>

#include "impl.h"
#include "vxi11.h"

namespace vxi11sim {

namespace {
constexpr size_t kMaxInput = 16u << 20;  // longest message buffered
// Longest wait of an empty read, whatever io_timeout the client asks for.
constexpr uint32_t kMaxReadWaitMs = 3600u * 1000u;
}  // namespace

void Simulator::Impl::sendReply(int fd, const Call& c, uint32_t stat, const std::string& result, const Faults& f) {
  // Faults name procedures by number and 0 means "none", so the NULL
  // procedure is hit only by a fault meant for every procedure.
  uint32_t xid = c.xid;
  bool named = c.prog == DEVICE_CORE && c.proc != 0;
  if (c.prog == DEVICE_CORE && (f.wrongXidProc == -1 || (named && f.wrongXidProc == (int)c.proc))) xid += 1;
  if (named && f.lateProc == (int)c.proc && f.lateMs) pause(f.lateMs);
  sendRecord(fd, replyHead(xid, stat) + result);
}

void Simulator::Impl::reject(int fd, const Call& c, uint32_t stat) { sendRecord(fd, rejectBody(c, stat, 1)); }

void Simulator::Impl::coreCall(int connNo, int fd, const Call& c) {
  Faults f;
  {
    std::lock_guard<std::mutex> g(m);
    f = faults;
    callLog.push_back((int)c.proc);
  }
  int32_t injected = f.deviceErrorProc == (int)c.proc ? f.deviceError : 0;
  std::string res;
  bool srq = false;
  log(1, "core call %u", c.proc);
  switch (c.proc) {
    case 0:
      break;
    case 10: {  // create_link
      Create_LinkParms p;
      if (!decode((xdrproc_t)xdr_Create_LinkParms, c, &p)) return reject(fd, c, GARBAGE_);
      Create_LinkResp r{};
      {
        std::lock_guard<std::mutex> g(m);
        names.push_back(p.device ? p.device : "");
        if (!injected) {
          r.lid = nextLid++;
          linkMap[(int32_t)r.lid] = Link{connNo, false, std::string()};
        }
      }
      r.error = injected;
      r.abortPort = reportedAbort;
      r.maxRecvSize = f.maxRecvSize;
      log(1, "create_link \"%s\" -> lid %ld", p.device ? p.device : "", (long)r.lid);
      xdr_free((xdrproc_t)xdr_Create_LinkParms, (char*)&p);
      encode((xdrproc_t)xdr_Create_LinkResp, &r, 0, &res);
      break;
    }
    case 11: {  // device_write
      Device_WriteParms p;
      if (!decode((xdrproc_t)xdr_Device_WriteParms, c, &p)) return reject(fd, c, GARBAGE_);
      Device_WriteResp r{};
      {
        std::lock_guard<std::mutex> g(m);
        std::string data(p.data.data_val ? p.data.data_val : "", p.data.data_len);
        writeLog.push_back(WriteRecord{(int32_t)p.lid, (int32_t)p.flags, data});
        r.error = injected ? injected : checkLid((int32_t)p.lid);
        if (!r.error && input.size() + data.size() > kMaxInput) r.error = ERR_RESOURCES;
        if (!r.error) {
          input += data;
          r.size = data.size();
          if (p.flags & 8) {  // END: the message is complete
            std::string msg;
            msg.swap(input);
            size_t b = 0;
            while (b <= msg.size()) {
              size_t e = msg.find_first_of(";\n", b);
              if (e == std::string::npos) e = msg.size();
              execute(msg.substr(b, e - b), &srq);
              b = e + 1;
            }
            cv.notify_all();  // a read may be waiting for output
          }
        }
      }
      log(2, "write %u bytes flags 0x%lx", p.data.data_len, (long)p.flags);
      xdr_free((xdrproc_t)xdr_Device_WriteParms, (char*)&p);
      encode((xdrproc_t)xdr_Device_WriteResp, &r, 0, &res);
      break;
    }
    case 12: {  // device_read
      Device_ReadParms p;
      if (!decode((xdrproc_t)xdr_Device_ReadParms, c, &p)) return reject(fd, c, GARBAGE_);
      Device_ReadResp r{};
      std::string data;
      {
        std::unique_lock<std::mutex> g(m);
        r.error = injected ? injected : checkLid((int32_t)p.lid);
        if (!r.error && output.empty()) {
          // Nothing queued: like a device, wait up to the client's io_timeout
          // for an answer (another link's query, say), unless an abort comes.
          int abortsBefore = aborts;
          auto ms = std::chrono::milliseconds(std::min<uint32_t>((uint32_t)p.io_timeout, kMaxReadWaitMs));
          cv.wait_for(g, ms, [&] { return !output.empty() || aborts != abortsBefore || stopping.load(); });
          if (aborts != abortsBefore)
            r.error = ERR_ABORT;
          else if (output.empty())
            r.error = ERR_TMO;
        }
        if (!r.error) {
          size_t n = std::min<size_t>(p.requestSize, output.size());
          if (p.flags & 0x80) {
            size_t t = output.find((char)p.termChar);
            if (t != std::string::npos && t < n) {
              n = t + 1;
              r.reason |= 2;
            }
          }
          if (n == p.requestSize) r.reason |= 1;
          if (n == output.size()) r.reason |= 4;
          data = output.substr(0, n);
          output.erase(0, n);
        }
      }
      r.data.data_len = (u_int)data.size();
      r.data.data_val = data.data();
      log(2, "read %zu bytes reason %ld", data.size(), (long)r.reason);
      encode((xdrproc_t)xdr_Device_ReadResp, &r, data.size(), &res);
      break;
    }
    case 13: {  // device_readstb
      Device_GenericParms p;
      if (!decode((xdrproc_t)xdr_Device_GenericParms, c, &p)) return reject(fd, c, GARBAGE_);
      Device_ReadStbResp r{};
      {
        std::lock_guard<std::mutex> g(m);
        r.error = injected ? injected : checkLid((int32_t)p.lid);
        if (!r.error) {
          r.stb = stb;
          stb &= (uint8_t)~0x40;  // like a serial poll: the request is taken
        }
      }
      encode((xdrproc_t)xdr_Device_ReadStbResp, &r, 0, &res);
      break;
    }
    case 14:    // device_trigger
    case 15:    // device_clear
    case 16:    // device_remote
    case 17: {  // device_local
      Device_GenericParms p;
      if (!decode((xdrproc_t)xdr_Device_GenericParms, c, &p)) return reject(fd, c, GARBAGE_);
      Device_Error r{};
      {
        std::lock_guard<std::mutex> g(m);
        r.error = injected ? injected : checkLid((int32_t)p.lid);
        if (!r.error && c.proc == 14) triggers++;
        if (!r.error && c.proc == 15) {
          clears++;
          input.clear();
          output.clear();
        }
      }
      encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
      break;
    }
    case 18: {  // device_lock
      Device_LockParms p;
      if (!decode((xdrproc_t)xdr_Device_LockParms, c, &p)) return reject(fd, c, GARBAGE_);
      Device_Error r{};
      std::lock_guard<std::mutex> g(m);
      r.error = injected ? injected : checkLid((int32_t)p.lid);
      encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
      break;
    }
    case 19:    // device_unlock
    case 23: {  // destroy_link
      Device_Link lid = 0;
      if (!decode((xdrproc_t)xdr_Device_Link, c, &lid)) return reject(fd, c, GARBAGE_);
      Device_Error r{};
      {
        std::lock_guard<std::mutex> g(m);
        r.error = injected ? injected : checkLid((int32_t)lid);
        if (!r.error && c.proc == 23) {
          linkMap.erase((int32_t)lid);
          destroyed.push_back((int32_t)lid);
        }
      }
      log(1, "%s lid %ld", c.proc == 23 ? "destroy_link" : "unlock", (long)lid);
      encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
      break;
    }
    case 20: {  // device_enable_srq
      Device_EnableSrqParms p;
      if (!decode((xdrproc_t)xdr_Device_EnableSrqParms, c, &p)) return reject(fd, c, GARBAGE_);
      Device_Error r{};
      {
        std::lock_guard<std::mutex> g(m);
        r.error = injected ? injected : checkLid((int32_t)p.lid);
        if (!r.error) {
          Link& l = linkMap[(int32_t)p.lid];
          l.srq = p.enable;
          l.handle.assign(p.handle.handle_val ? p.handle.handle_val : "", p.handle.handle_len);
          lastHandle = l.handle;
        }
      }
      xdr_free((xdrproc_t)xdr_Device_EnableSrqParms, (char*)&p);
      encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
      break;
    }
    case 22: {  // device_docmd: no commands are known
      Device_DocmdParms p;
      if (!decode((xdrproc_t)xdr_Device_DocmdParms, c, &p)) return reject(fd, c, GARBAGE_);
      xdr_free((xdrproc_t)xdr_Device_DocmdParms, (char*)&p);
      Device_DocmdResp r{};
      r.error = injected ? injected : ERR_NSUP;
      encode((xdrproc_t)xdr_Device_DocmdResp, &r, 0, &res);
      break;
    }
    case 25: {  // create_intr_chan
      bool garbage = false;
      Device_Error r{};
      r.error = createIntrChan(connNo, c, f, injected, &garbage);
      if (garbage) return reject(fd, c, GARBAGE_);
      encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
      break;
    }
    case 26: {  // destroy_intr_chan
      Device_Error r{};
      r.error = destroyIntrChan(connNo);
      encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
      break;
    }
    default:
      return reject(fd, c, PROC_UNAVAIL_);
  }
  sendReply(fd, c, SUCCESS_, res, f);
  if (srq) fireSrqImpl(nullptr);
}

void Simulator::Impl::abortCall(int fd, const Call& c) {
  std::string res;
  if (c.proc == 1) {
    Device_Link lid = 0;
    if (!decode((xdrproc_t)xdr_Device_Link, c, &lid)) return reject(fd, c, GARBAGE_);
    Device_Error r{};
    {
      std::lock_guard<std::mutex> g(m);
      aborts++;
      cv.notify_all();
      r.error = checkLid((int32_t)lid);
    }
    encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
  } else if (c.proc != 0) {
    return reject(fd, c, PROC_UNAVAIL_);
  }
  sendRecord(fd, replyHead(c.xid, SUCCESS_) + res);
}

}  // namespace vxi11sim
