#!/usr/bin/python3
"""Asks the login-attempt limiter and reports to it, as a VPN server's login hook does.

    replay_logins.py [FILE]

FILE has one JSON object in each line; data/README.md tells what is in it. A refused login is counted
as a failure of its user. Before a login is accepted the limiter is asked: while its user is blocked,
the right password does not help.
"""
import hook_calls


def judge(client, call):
    """What becomes of one login; tells the limiter of a failure."""
    user = call["env"]["username"]
    if not call["accepted"]:
        client.limiter.add_failure(user)
        return "refused, counted as a failed login"
    return "turned away: the user is blocked" if client.limiter.is_blocked(user) else "accepted"


def main():
    count, name = hook_calls.replay_argument(
        ("auth",), lambda client, call: print(f"{call['env']['username']:<8} {judge(client, call)}"))
    print(count, "logins replayed from", name)


if __name__ == "__main__":
    main()
