// The peer by gRPC, over a unix socket: no bus between the two.
#include <grpcpp/grpcpp.h>

#include <stdexcept>

#include "bench/peers/peer.h"
#include "peer.grpc.pb.h"

namespace zq::bench {
namespace {

class Service : public PeerService::Service {
 public:
  grpc::Status ConnectDevice(grpc::ServerContext*, const ConnectDeviceCall*,
                             ConnectDeviceReply* reply) override {
    reply->set_status(0);
    return grpc::Status::OK;
  }
};

class GrpcClient : public PeerClient {
 public:
  explicit GrpcClient(const std::string& address)
      : service_(PeerService::NewStub(
            grpc::CreateChannel(address, grpc::InsecureChannelCredentials()))) {}

  int32_t connectDevice(int32_t desktop, uint16_t device) override {
    grpc::ClientContext context;
    ConnectDeviceCall call;
    call.set_desktop(desktop);
    call.set_device(device);
    ConnectDeviceReply reply;
    const grpc::Status status = service_->ConnectDevice(&context, call, &reply);
    if (!status.ok()) throw std::runtime_error(status.error_message());
    return reply.status();
  }

 private:
  const std::unique_ptr<PeerService::Stub> service_;
};

std::string addressOf(const std::string& name) {
  return "unix:" + peerSocket(name);
}

}  // namespace

void servePeer(const std::string& name, const std::function<void()>& ready) {
  Service service;
  grpc::ServerBuilder builder;
  builder.AddListeningPort(addressOf(name), grpc::InsecureServerCredentials());
  builder.RegisterService(&service);
  const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (server == nullptr) throw std::runtime_error("cannot listen at " + addressOf(name));
  ready();
  server->Wait();
}

std::unique_ptr<PeerClient> connectPeer(const std::string& name) {
  return std::make_unique<GrpcClient>(addressOf(name));
}

}  // namespace zq::bench
