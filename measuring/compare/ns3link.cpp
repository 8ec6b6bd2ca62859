#include "commandline.h"

#include <ns3/error-model.h>
#include <ns3/fd-net-device.h>
#include <ns3/global-value.h>
#include <ns3/node.h>
#include <ns3/random-variable-stream.h>
#include <ns3/rng-seed-manager.h>
#include <ns3/simple-channel.h>
#include <ns3/simple-net-device.h>
#include <ns3/simulator.h>
#include <ns3/string.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr unsigned bitsPerByte = 8;

struct Options {
    int inputFd = -1;  // inherited, one Ethernet frame a datagram
    int outputFd = -1;
    double errorRate = 0.0;  // per bit
    bool everyBit = false;   // draw for each bit, which no model of ns-3 does
    unsigned seed = 1;
};

/// Decides each bit by itself, as a link of ns-3 would have to; it still drops a corrupted frame.
class EveryBitErrorModel : public ns3::ErrorModel
{
public:
    explicit EveryBitErrorModel(double rate)
        : _rate(rate)
        , _draws(ns3::CreateObject<ns3::UniformRandomVariable>())
    {
    }

private:
    bool DoCorrupt(ns3::Ptr<ns3::Packet> packet) override
    {
        bool corrupted = false;
        for (unsigned bit = 0; bit < packet->GetSize() * bitsPerByte; ++bit)
            corrupted |= _draws->GetValue(0.0, 1.0) < _rate;
        return corrupted;
    }
    void DoReset() override { }

    double _rate;
    ns3::Ptr<ns3::UniformRandomVariable> _draws;
};

ns3::Ptr<ns3::ErrorModel> errorModel(const Options& options)
{
    if (options.everyBit)
        return ns3::CreateObject<EveryBitErrorModel>(options.errorRate);
    auto model = ns3::CreateObject<ns3::RateErrorModel>();
    model->SetUnit(ns3::RateErrorModel::ERROR_UNIT_BIT);
    model->SetRate(options.errorRate);
    return model;
}

ns3::Ptr<ns3::FdNetDevice> outsideDevice(int fd)
{
    auto device = ns3::CreateObject<ns3::FdNetDevice>();
    device->SetFileDescriptor(fd);
    ns3::CreateObject<ns3::Node>()->AddDevice(device);
    return device;
}

ns3::Ptr<ns3::SimpleNetDevice> linkDevice(const ns3::Ptr<ns3::NetDevice>& outside,
                                          const ns3::Ptr<ns3::SimpleChannel>& channel)
{
    auto device = ns3::CreateObject<ns3::SimpleNetDevice>();
    device->SetAddress(ns3::Mac48Address::Allocate());
    device->SetChannel(channel);
    outside->GetNode()->AddDevice(device);
    return device;
}

/// Two nodes, each with a device to the outside and one to the link between them.
class Link
{
public:
    explicit Link(const Options& options)
        : _input(outsideDevice(options.inputFd))
        , _output(outsideDevice(options.outputFd))
    {
        auto channel = ns3::CreateObject<ns3::SimpleChannel>();
        _linkInput = linkDevice(_input, channel);
        _linkOutput = linkDevice(_output, channel);
        _linkOutput->SetReceiveErrorModel(errorModel(options));
        _input->SetPromiscReceiveCallback(ns3::MakeCallback(&Link::_takeFromOutside, this));
        _linkOutput->SetPromiscReceiveCallback(ns3::MakeCallback(&Link::_takeFromLink, this));
    }

private:
    bool _takeFromOutside(ns3::Ptr<ns3::NetDevice> /*device*/, ns3::Ptr<const ns3::Packet> packet,
                          std::uint16_t protocol, const ns3::Address& source, const ns3::Address& destination,
                          ns3::NetDevice::PacketType /*type*/)
    {
        return _linkInput->SendFrom(packet->Copy(), source, destination, protocol);
    }

    bool _takeFromLink(ns3::Ptr<ns3::NetDevice> /*device*/, ns3::Ptr<const ns3::Packet> packet,
                       std::uint16_t protocol, const ns3::Address& source, const ns3::Address& destination,
                       ns3::NetDevice::PacketType /*type*/)
    {
        return _output->SendFrom(packet->Copy(), source, destination, protocol);
    }

    ns3::Ptr<ns3::FdNetDevice> _input;
    ns3::Ptr<ns3::FdNetDevice> _output;
    ns3::Ptr<ns3::SimpleNetDevice> _linkInput;
    ns3::Ptr<ns3::SimpleNetDevice> _linkOutput;
};

void announce()
{
    std::puts("ready");
    std::fflush(stdout);
}

Options readCommandLine(int argc, char** argv)
{
    Options options;
    CommandLine line(
        "usage: lattivo_ns3link --input-fd N --output-fd N [options]\n"
        "Carries Ethernet frames between two datagram sockets through a link of ns-3 until it is ended.");
    line.addNumber("--input-fd", options.inputFd, 1, "frames for the link");
    line.addNumber("--output-fd", options.outputFd, 1, "frames from the link");
    line.addNumber("--error-rate", options.errorRate, 0, "per bit (0)");
    line.addFlag("--every-bit", options.everyBit, "draw for each bit");
    line.addNumber("--seed", options.seed, 1, "of the random numbers (1)");
    line.read(argc, argv);
    if (options.inputFd < 0 || options.outputFd < 0)
        line.refuse();
    return options;
}

}  // namespace

int main(int argc, char** argv)
{
    const Options options = readCommandLine(argc, argv);
    ns3::GlobalValue::Bind("SimulatorImplementationType", ns3::StringValue("ns3::RealtimeSimulatorImpl"));
    ns3::RngSeedManager::SetSeed(options.seed);
    const Link link(options);
    ns3::Simulator::ScheduleNow(&announce);
    ns3::Simulator::Run();
    ns3::Simulator::Destroy();
    return EXIT_SUCCESS;
}
