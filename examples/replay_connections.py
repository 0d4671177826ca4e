#!/usr/bin/python3
"""Records what the hooks of a VPN server were told, as far as it concerns connections.

    replay_connections.py [FILE]

FILE has one JSON object in each line; data/README.md tells what is in it and how the variables fill
a record. Every connect and every disconnect becomes one record.
"""
import hook_calls
import ravo

VPN_TYPE_OPENVPN = 4
# 3 is a lost connection, but a disconnect hook is not told whether the client left or fell silent.
CONNECTED, DISCONNECTED = 1, 2


def device_info(env):
    """Platform, program version and everything that the client says about itself."""
    names = ["IV_PLAT", "IV_VER"] + sorted(name for name in env if name.startswith("UV_"))
    return " ".join(env[name] for name in names if name in env)


def to_record(call):
    """The record for one connect or disconnect."""
    env = call["env"]
    ended = call["hook"] == "disconnect"
    duration = int(env["time_duration"]) if ended else 0
    return ravo.Session(
        username=env["username"],
        vpn_type=VPN_TYPE_OPENVPN,
        uptime=duration,
        time=int(env["time_unix"]) + duration,
        device_info=device_info(env),
        source_ip=env["trusted_ip"] if "trusted_ip" in env else env["trusted_ip6"],
        vpn_ip=env["ifconfig_pool_remote_ip"],
        tx_total=int(env.get("bytes_sent", 0)),
        rx_total=int(env.get("bytes_received", 0)),
        outgoing=env["dev"],
        action=DISCONNECTED if ended else CONNECTED,
    )


def main():
    hooks = ("connect", "disconnect")
    count, name = hook_calls.replay_argument(
        hooks, lambda client, call: client.sessions.add(to_record(call)))
    print(count, "connects and disconnects recorded from", name)


if __name__ == "__main__":
    main()
