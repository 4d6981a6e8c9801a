# SPDX-License-Identifier: Apache-2.0
"""What goes wrong in the scenario, and when. A trouble has a beginning and an end, and is
of a lane: of each lane there is one at a time, while those of different lanes come as
they like. A round ends with a while in which all is well. The seed decides it all."""
import collections
import signal
import time

from scripted_peer import BUSY, UNAVAILABLE, Cut, Fail, Garbage, Notice, Stall

ROUGH = 0.65  # of a round
OFTEN = 0.75  # how likely a lane has a trouble in a round


class Trouble:
    """Two actions, and a name for the record. Some end a life of the agent's; after some it
    takes the servers a while until all is well."""

    def __init__(self, lane, name, begin, end=lambda: None):
        self.lane, self.name, self.begin, self.end = lane, name, begin, end
        self.mortal, self.aftermath = False, lambda: 0  # seconds


def plan(random, troubles, rounds, length):
    """[(when, begin or end, trouble)], in so many rounds of that length. The agent dies in
    the first third of them, and once later: what lives longer must not grow."""
    events = []
    for round in range(rounds):
        mortal = 3 * round < rounds or round == 2 * rounds // 3
        begin = round * length
        events += [(begin, "rough", None), (begin + ROUGH * length, "calm", None)]
        for lane in sorted({trouble.lane for trouble in troubles}):
            some = [trouble for trouble in troubles if trouble.lane == lane and (mortal or not trouble.mortal)]
            if random.random() < OFTEN:
                events += episode(random, random.choice(some), begin, ROUGH * length)
    return sorted(events, key=lambda event: event[0])


def episode(random, trouble, begin, length):
    """Somewhere in the rough part of a round."""
    first = random.uniform(0, 0.6) * length
    last = min(first + random.uniform(0.1, 0.6) * length, length)
    return [(begin + first, "begin", trouble), (begin + last, "end", trouble)]


class Troublemaker:
    """Carries a plan out, as step() is called: in the thread that started the servers,
    since they end with the thread that starts them."""

    def __init__(self, events, weather, record):
        self.events, self.weather, self.record = collections.deque(events), weather, record
        self.begun, self.open, self.over = time.monotonic(), [], 0

    def step(self):
        """What is due by now."""
        while self.events and self.begun + self.events[0][0] <= time.monotonic():
            _, what, trouble = self.events.popleft()
            with open(self.record, "a", encoding="utf-8") as record:
                record.write(f"{time.monotonic():.1f} {what} {trouble.name if trouble else ''}\n")
            {"rough": self.weather.rough, "calm": lambda: self.weather.calm(self.over), "begin": lambda: self.begin(trouble),
             "end": lambda: self.end(trouble)}[what]()

    def begin(self, trouble):
        self.open.append(trouble)
        trouble.begin()

    def end(self, trouble):
        self.open.remove(trouble)
        trouble.end()
        self.over = max(self.over, time.monotonic() + trouble.aftermath())

    def stop(self):
        for trouble in list(self.open):
            self.end(trouble)


# ---- the agent's and slapd's

def agent_stopped(agent):
    return Trouble("agent", "agent stopped", lambda: agent.signal(signal.SIGSTOP), lambda: agent.signal(signal.SIGCONT))


def agent_dead(agent, name, die, domain):
    """Where the name service has gone meanwhile, it finds nobody, and asks again after a
    quarter of a minute."""
    trouble = Trouble("agent", name, die, agent.start)
    trouble.mortal = True
    trouble.aftermath = lambda: 17 if domain and domain.names is None else 0
    return trouble


def dumps(slapd, agent):
    """What an administrator asks of running servers."""
    def begin():
        slapd.signal(signal.SIGUSR1)
        agent.signal(signal.SIGHUP)
    return Trouble("administrator", "dump and new log levels", begin)


# ---- a domain's

def hung(number, relay):
    return Trouble(f"relay {number}", f"controller {number} hung", lambda: relay.late(lambda: None), relay.prompt)


def late(number, relay, random, deadlines):
    """Some answers come about when somebody's time is up."""
    def delay():
        return random.choice(deadlines) * random.uniform(0.9, 1.1) if random.random() < 0.4 else 0
    return Trouble(f"relay {number}", f"controller {number} late", lambda: relay.late(delay), relay.prompt)


def away(number, relay, port):
    def begin():
        relay.refuse(port)
        relay.drop()
    return Trouble(f"relay {number}", f"controller {number} away", begin, lambda: relay.serve(port))


def dropped(number, relay):
    return Trouble(f"connections {number}", f"connections to controller {number} dropped", relay.drop)


def mischief(number, peer, random):
    """Some searches end in another way than they should."""
    kinds = [lambda: Notice(random.randrange(3)), lambda: Garbage(random.randrange(3)), lambda: Cut(random.randrange(3)),
             lambda: Stall(random.randrange(3)), lambda: Stall(1, half=True), lambda: Fail(BUSY, "busy", random.randrange(3)),
             lambda: Fail(UNAVAILABLE, "going down", 1), lambda: Fail(1, "00002020: Operation unavailable")]
    def begin():
        peer.mischief = lambda: random.choice(kinds)() if random.random() < 0.1 else None
    def end():
        peer.mischief = lambda: None
    return Trouble(f"mischief {number}", f"controller {number} goes wrong", begin, end)


def false_certificate(number, peer, relay, kind):
    def change(certificate):
        peer.show(certificate)
        relay.drop()
    return Trouble(f"certificate {number}", f"controller {number} shows a certificate of {kind}", lambda: change(kind),
                   lambda: change("true"))


def no_names(domain):
    return Trouble("names", "DNS gone", domain.names_gone, domain.names_back)


def of_servers(agent, slapd, domain):
    return [agent_stopped(agent), agent_dead(agent, "agent killed", agent.kill, domain),
            agent_dead(agent, "agent restarted", agent.stop, domain), dumps(slapd, agent)]


def of_domain(domain, random, deadlines):
    troubles = [no_names(domain)]
    for number, (relay, peer) in enumerate(zip(domain.relays, domain.peers), 1):
        troubles += [hung(number, relay), late(number, relay, random, deadlines), late(number, relay, random, deadlines),
                     away(number, relay, peer.port), dropped(number, relay), mischief(number, peer, random)]
        troubles += [false_certificate(number, peer, relay, kind) for kind in ("another name", "another authority")]
    return troubles
