// The plots: what each draws into its frame, and what it says of a time. A frame has the session, scales
// x and y, the clipped group `g`, and `label(text, value, kind)` for the right margin.

const kLanes = ["video", "trick", "audio", "subtitle", "none"];
const kLaneTitles = { video: "Video", trick: "Trick", audio: "Audio", subtitle: "Subtitles", none: "Other" };
const kLaneHeight = 24;
const kBarHeight = kLaneHeight - 10;

function drawLine(frame, points, kind, step = false) {
  const [from, to] = frame.x.domain();
  const visible = thin(points, from, to, frame.width);
  const line = d3.line().defined((point) => known(point[1])).x((point) => frame.x(point[0])).y((point) => frame.y(point[1]));
  if (step) line.curve(d3.curveStepAfter);
  frame.g.append("path").attr("class", `line ${kind}${visible.length > 2 * frame.width ? " dense" : ""}`).attr("d", line(visible));
}

function lastValue(points, time) {
  const value = valueAt(points, time);
  if (known(value)) return value;
  const known_ = points.filter((point) => known(point[1]) && point[0] <= time);
  return known_.length ? known_[known_.length - 1][1] : null;
}

function drawLabelled(frame, points, text, kind, step) {
  if (!points.some((point) => known(point[1]))) return;
  drawLine(frame, points, kind, step);
  // A threshold is named as long as it holds.
  const end = frame.x.domain()[1];
  frame.label(text, kind === "threshold" ? valueAt(points, end) : lastValue(points, end), kind);
}

const inWindow = (frame, from, to) => to >= frame.x.domain()[0] && from <= frame.x.domain()[1];
const most = (rows, of) => d3.max(rows, (row) => (known(of(row)) ? of(row) : 0)) || 0;

function figures(row) {
  return [["Rule", row.rule], ["", kRuleTexts[row.rule]], ["Link estimate", asRate(row.bandwidth_bps)],
    ["without audio", asRate(row.available_bps)], ["relied on", asRate(row.guarded_bps)],
    ["Level wanted, possible", `${row.target}, ${row.candidate}`],
    ["Buffered", `${asSeconds(row.buffered_s)} (guard ${asSeconds(row.guard_s)}, to start ${asSeconds(row.required_s)})`],
    ["Level held for", asSeconds(row.held_s)],
    ["Last download", `${asBytes(row.download_bytes)} in ${asSeconds(row.download_s)}`], ["Mode", row.mode]];
}

const levelPlot = {
  id: "level",
  title: "Level",
  hint: "which video is fetched; \u25b2 \u25bc switches, each with its reason",
  height: 150,
  domain: (sessions) => [-0.35, Math.max(1, ...sessions.map((session) =>
    Math.max(session.bitrates.length - 1, most(session.series.levels, (point) => point[1])))) + 0.35],
  ticks: (session, [, top]) => d3.range(0, Math.floor(top) + 1).map((level) => ({
    value: level,
    text: session.bitrates[level] ? `${level} \u00b7 ${scaled(session.bitrates[level], "")}` : String(level),
  })),
  present: () => true,
  draw(frame) {
    drawLine(frame, frame.session.series.levels, "video", true);
    const bottom = frame.height - 2;
    const ticks = new Set(frame.session.rows("decisions").filter((row) => inWindow(frame, row.time_s, row.time_s))
      .map((row) => Math.round(frame.x(row.time_s))));
    frame.g.append("path").attr("class", "decisions")
      .attr("d", [...ticks].map((x) => `M${x + 0.5},${bottom}v-5`).join(""));
    frame.g.selectAll(".switch").data(frame.session.rows("switches").filter((row) => inWindow(frame, row.time_s, row.time_s)))
      .join("path")
      .attr("class", (row) => `switch ${row.to > row.from ? "up" : "down"}`)
      .attr("d", (row) => (row.to > row.from ? "M-5.5,4.5L0,-5.5L5.5,4.5Z" : "M-5.5,-4.5L0,5.5L5.5,-4.5Z"))
      .attr("transform", (row) => `translate(${frame.x(row.time_s)},${frame.y(row.to)})`);
    frame.note("decisions", bottom - 1);
  },
  hover(frame, time) {
    const near = frame.nearest(frame.session.rows("switches"), time, "time_s", 9);
    if (near) {
      return [`Switch ${near.from} \u2192 ${near.to} at ${asClock(near.time_s)}`,
        known(near.rule) ? figures(near) : [["", "no decision was recorded"]]];
    }
    const level = valueAt(frame.session.series.levels, time);
    const decision = frame.session.at("decisions", time);
    return [known(level) ? `Level ${level}, ${asRate(frame.session.bitrates[level])}` : "No level yet",
      decision ? [["Decided at", asClock(decision.time_s)], ...figures(decision)] : []];
  },
  describe: (session) => `${session.info.headline.switches} switches; levels from ${
    d3.min(session.series.levels, (point) => point[1])} to ${d3.max(session.series.levels, (point) => point[1])}`,
};

const bufferPlot = {
  id: "buffer",
  title: "Buffered",
  hint: "seconds of media that wait to be played; dashed: thresholds",
  height: 170,
  domain: (sessions) => [0, 1.08 * Math.max(1, ...sessions.map((session) =>
    most(session.rows("buffers"), (row) => Math.max(row.video_s, row.audio_s, row.max_video_s || 0))))],
  ticks: (session, domain) => d3.scaleLinear().domain(domain).ticks(5).map((value) => ({ value, text: `${value} s` })),
  present: (session) => session.rows("buffers").length > 0,
  draw(frame) {
    const series = frame.session.series;
    drawLabelled(frame, series.max_video_s, "most", "threshold", true);
    drawLabelled(frame, series.required_video_s, "to start", "threshold", true);
    drawLabelled(frame, series.underflow_s, "stalls below", "threshold", true);
    drawLabelled(frame, series.audio_s, "audio", "audio");
    drawLabelled(frame, series.video_s, "video", "video");
    for (const stall of frame.session.stalls) {
      const [left, right] = [stall.start_s, stall.end_s].map(frame.x);
      if (right - left < 70 || !inWindow(frame, stall.start_s, stall.end_s)) continue;
      frame.g.append("text").attr("class", "why").attr("x", Math.max(left, 0) + 5).attr("y", 13).text(`stall ${asSeconds(stall.end_s - stall.start_s)}`);
    }
  },
  hover(frame, time) {
    const row = frame.session.at("buffers", time);
    return row && [`At ${asClock(time)}`, [["Video", asSeconds(row.video_s)], ["Audio", asSeconds(row.audio_s)],
      ["Subtitles", asSeconds(row.subtitle_s)], ["To start, video", asSeconds(row.required_video_s)],
      ["To start, audio", asSeconds(row.required_audio_s)], ["Stalls below", asSeconds(row.underflow_s)],
      ["At most", asSeconds(row.max_video_s)]]];
  },
  describe: (session) => `${session.info.headline.stalls} stalls, ${asSeconds(session.info.headline.stalled_s)}`,
};

const endOf = (row) => row.start_s + row.wait_s + row.transfer_s;

// One path a stream, without dots that hide one another. What is above the axis stands at its edge as a triangle.
function drawDots(frame) {
  const paths = {}, taken = new Set();
  const top = frame.y.domain()[1];
  for (const row of frame.session.rows("requests")) {
    if (!known(row.throughput_bps) || !inWindow(frame, endOf(row), endOf(row))) continue;
    const x = frame.x(endOf(row)), y = Math.max(4, frame.y(Math.min(row.throughput_bps, top)));
    const place = `${Math.round(x)} ${Math.round(y / 2)}`;
    if (taken.has(place)) continue;
    taken.add(place);
    paths[row.stream] = (paths[row.stream] || "") + (row.throughput_bps > top
      ? `M${x - 3.5},${y + 3}L${x},${y - 3}L${x + 3.5},${y + 3}Z` : `M${x - 2.5},${y}a2.5,2.5 0 1,0 5,0a2.5,2.5 0 1,0 -5,0`);
  }
  for (const stream of Object.keys(paths)) frame.g.append("path").attr("class", `dot ${stream}`).attr("d", paths[stream]);
}

const linkPlot = {
  id: "link",
  title: "Link",
  hint: "dots: each request's throughput",
  height: 170,
  // A few very fast transfers must not flatten the rest: what is above stands at the edge.
  domain: (sessions) => [0, Math.max(1e5, ...sessions.map((session) => {
    const speeds = session.rows("requests").map((row) => row.throughput_bps).filter(known).sort(d3.ascending);
    const lines = Math.max(most(session.rows("buffers"), (row) => row.bandwidth_bps), most(session.rows("link"), (row) => row.bps));
    return Math.max(1.1 * lines, lines ? Math.min(1.1 * (d3.quantile(speeds, 0.9) || 0), 3 * lines) : 1.1 * (d3.quantile(speeds, 0.9) || 0));
  }))],
  ticks: (session, domain) => d3.scaleLinear().domain(domain).ticks(5).map((value) => ({ value, text: scaled(value, "") })),
  unit: "b/s",
  present: (session) => session.rows("requests").length > 0 || session.rows("link").length > 0,
  draw(frame) {
    const series = frame.session.series;
    drawLabelled(frame, series.link, "true rate", "truth", true);
    drawDots(frame);
    drawLabelled(frame, series.bandwidth_bps, "estimate", "estimate", true);
  },
  hover(frame, time) {
    const buffers = frame.session.at("buffers", time);
    const request = frame.session.rows("requests").filter((row) => known(row.throughput_bps))
      .reduce((best, row) => {
        const off = Math.abs(frame.x(endOf(row)) - frame.x(time));
        return off < best.off ? { off, row } : best;
      }, { off: 12 }).row;
    return [`At ${asClock(time)}`, [["Estimate", asRate(buffers && buffers.bandwidth_bps)],
      ["True rate", asRate(valueAt(frame.session.series.link, time))],
      ...(request ? [["Request", `${request.stream}, ${asBytes(request.bytes)} in ${asSeconds(request.transfer_s)}`],
        ["its throughput", asRate(request.throughput_bps)]] : [])]];
  },
  describe: (session) => `${session.rows("requests").length} requests`,
};

const requestPlot = {
  id: "requests",
  title: "Requests",
  hint: "pale: waiting for the first byte; solid: transfer; \u2715 failed or cancelled",
  lanes: (sessions) => kLanes.filter((lane) => sessions.some((session) => session.lanes.has(lane))),
  present: (session) => session.rows("requests").length > 0,
  draw(frame) {
    const edge = {}, paths = {}, bad = [];
    for (const row of frame.session.rows("requests")) {
      if (!inWindow(frame, row.start_s, endOf(row)) || !frame.lanes.includes(row.stream)) continue;
      const complete = row.end === "complete";
      const [left, middle, right] = [row.start_s, row.start_s + row.wait_s, endOf(row)].map(frame.x);
      if (!complete) bad.push(row);
      else if (right < (edge[row.stream] || -1) + 0.7) continue;
      edge[row.stream] = right;
      const y = frame.lanes.indexOf(row.stream) * kLaneHeight + 5;
      const add = (kind, from, to) => {
        const key = `${kind} ${row.stream}${complete ? "" : " bad"}`;
        paths[key] = `${paths[key] || ""}M${from},${y}H${to}V${y + kBarHeight}H${from}Z`;
      };
      add("wait", left, middle);
      add("transfer", middle, Math.max(middle + 0.7, right));
    }
    for (const key of Object.keys(paths).sort().reverse()) frame.g.append("path").attr("class", `request ${key}`).attr("d", paths[key]);
    const cross = frame.g.selectAll(".unfinished").data(bad).join("g").attr("class", (row) => `unfinished ${row.end}`)
      .attr("transform", (row) => `translate(${frame.x(endOf(row))},${(frame.lanes.indexOf(row.stream) + 0.5) * kLaneHeight})`);
    cross.append("path").attr("class", "cross").attr("d", "M-4,-4L4,4M4,-4L-4,4");
    cross.filter((row) => frame.x(endOf(row)) - frame.x(row.start_s) > 90).append("text").attr("class", "why")
      .attr("text-anchor", "end").attr("x", -8).attr("y", 4)
      .text((row) => (row.end === "failed" && known(row.result) ? `failed (${row.result})` : row.end));
  },
  hover(frame, time, y) {
    const lane = frame.lanes[Math.floor(y / kLaneHeight)];
    const slack = 4 / (frame.x(1) - frame.x(0));
    const row = frame.session.rows("requests").filter((candidate) => candidate.stream === lane
      && candidate.start_s - slack <= time && time <= endOf(candidate) + slack).pop();
    if (!row) return null;
    return [`${kLaneTitles[row.stream]}: ${row.purpose}${known(row.cluster) ? ` ${row.cluster}` : ""}`,
      [["Begun", asClock(row.start_s, 0.001)], ["Level or track", known(row.index) ? String(row.index) : "–"],
        ["Waited", asSeconds(row.wait_s)], ["Transfer", asSeconds(row.transfer_s)], ["Bytes", asBytes(row.bytes)],
        ["Throughput", asRate(row.throughput_bps)], ["End", kEndTexts[row.end] || row.end],
        ["HTTP", known(row.status) ? String(row.status) : "no reply"],
        ...(known(row.result) ? [["Error", String(row.result)]] : []), ["URL", row.url || ""]]];
  },
  describe: (session) => `${session.info.headline.requests_failed} failed, ${session.info.headline.requests_cancelled} cancelled`,
};

const positionPlot = {
  id: "position",
  title: "Position",
  hint: "media time against the clock; dashed: trick play, dotted: pauses, \u25c6 seeks",
  height: 170,
  // Of what the window shows, so that a part of the time fills the plot too.
  domain(sessions, { from, to }) {
    const values = sessions.flatMap((session) => [
      ...thin(session.series.position_s, from, to, 500).map((point) => point[1]),
      ...session.rows("states").filter((row) => row.state === "seek" && row.time_s >= from && row.time_s <= to).map((row) => row.value_s),
    ]).filter(known);
    const [least, greatest] = values.length ? d3.extent(values) : [0, 1];
    return [least, Math.max(greatest, least + 1)];
  },
  ticks(session, domain) {
    const { step, values } = timeTicks(d3.scaleLinear().domain(domain), 6);
    return values.map((value) => ({ value, text: asClock(value, step) }));
  },
  present: (session) => session.rows("buffers").some((row) => known(row.position_s)),
  draw(frame) {
    const points = frame.session.series.position_s;
    const by = d3.bisector((point) => point[0]);
    for (const phase of frame.session.phases) {
      if (!inWindow(frame, phase.start_s, phase.end_s)) continue;
      const part = points.slice(by.left(points, phase.start_s), by.left(points, phase.end_s));
      drawLine(frame, part, `position ${phase.phase.replace(" ", "-")}`);
      const middle = part[Math.floor(part.length / 2)];
      if (phase.rate && middle && known(middle[1]) && frame.x(phase.end_s) - frame.x(phase.start_s) > 24) {
        frame.g.append("text").attr("class", "rate").attr("x", frame.x(middle[0])).attr("y", frame.y(middle[1]) - 9).text(phase.rate);
      }
    }
    const seeks = frame.session.rows("states").filter((row) => row.state === "seek" && inWindow(frame, row.time_s, row.time_s));
    frame.g.selectAll(".seek").data(seeks).join("path").attr("class", "seek")
      .attr("d", (row) => {
        const x = frame.x(row.time_s), to = frame.y(row.value_s);
        const before = known(row.position_s) ? row.position_s : lastValue(points, row.time_s);
        const from = known(before) ? frame.y(before) : to;
        return `M${x},${from}V${to}M${x - 4.5},${to}l4.5,-4.5l4.5,4.5l-4.5,4.5Z`;
      });
    drawEnd(frame);
  },
  hover(frame, time) {
    const near = frame.nearest(frame.session.rows("states"), time, "time_s", 6);
    const phase = frame.session.phaseAt(time);
    const rows = [["Position", asClock(valueAt(frame.session.series.position_s, time))],
      ["Phase", phase ? `${phase.phase}${phase.rate ? ` ${phase.rate}` : ""}` : "–"]];
    if (near) {
      const detail = [near.rate, near.text, known(near.value_s) ? asClock(near.value_s) : null,
        near.state === "level" ? `${near.from} \u2192 ${near.to}` : null, known(near.code) ? `error ${near.code}` : null];
      rows.push(["Then", [near.state, ...detail.filter(Boolean)].join(" ")]);
    }
    return [`At ${asClock(time)}`, rows];
  },
  describe: (session) => session.phases.map((phase) => phase.phase).slice(0, 20).join(", "),
};

function drawEnd(frame) {
  const marks = frame.session.rows("states").filter((row) => ["end-of-stream", "error"].includes(row.state)
    && inWindow(frame, row.time_s, row.time_s));
  for (const row of marks) {
    const x = frame.x(row.time_s);
    frame.g.append("path").attr("class", row.state === "error" ? "mark error" : "mark").attr("d", `M${x},0V${frame.height}`);
    frame.g.append("text").attr("class", row.state === "error" ? "why" : "remark").attr("x", x - 4).attr("y", frame.height - 7).attr("text-anchor", "end")
      .text(row.state === "error" ? `error ${row.code}` : "end of stream");
  }
}

const subtitlePlot = {
  id: "subtitles",
  title: "Subtitles shown",
  lanes: () => ["shown"],
  present: (session) => session.rows("subtitles").length > 0,
  draw(frame) {
    const rows = frame.session.rows("subtitles").filter((row) => inWindow(frame, row.start_s, row.end_s));
    const cue = frame.g.selectAll(".cue").data(rows).join("g").attr("class", "cue")
      .attr("transform", (row) => `translate(${frame.x(row.start_s)},4)`);
    const width = (row) => Math.max(1.5, frame.x(row.end_s) - frame.x(row.start_s));
    cue.append("rect").attr("width", width).attr("height", kLaneHeight - 8);
    cue.filter((row) => width(row) > 56).append("text").attr("x", 5).attr("y", 12)
      .text((row) => {
        const room = Math.floor((width(row) - 8) / 6.2);
        const text = row.text.replace(/\s+/g, " ");
        return text.length > room ? `${text.slice(0, Math.max(0, room - 1))}\u2026` : text;
      });
  },
  hover(frame, time) {
    const row = frame.session.rows("subtitles").find((candidate) => candidate.start_s <= time && time <= candidate.end_s);
    return row && [`${asClock(row.from_s)} \u2013 ${asClock(row.until_s)}`, [["", row.text]]];
  },
  describe: (session) => `${session.rows("subtitles").length} texts`,
};

const picturePlot = {
  id: "pictures",
  title: "Television: pictures",
  hint: "a second; bars: dropped",
  height: 110,
  domain: (sessions) => [0, 1.1 * Math.max(5, ...sessions.map((session) =>
    most(session.rows("player"), (row) => Math.max(row.shown_per_s || 0, row.dropped_since))))],
  ticks: (session, domain) => d3.scaleLinear().domain(domain).ticks(4).map((value) => ({ value, text: String(value) })),
  present: (session) => session.rows("player").length > 0,
  draw(frame) {
    const rows = frame.session.rows("player").filter((row) => row.dropped_since > 0 && inWindow(frame, row.time_s, row.time_s));
    frame.g.selectAll(".drop").data(rows).join("rect").attr("class", "drop").attr("width", 3)
      .attr("x", (row) => frame.x(row.time_s) - 1.5).attr("y", (row) => frame.y(row.dropped_since))
      .attr("height", (row) => frame.y(0) - frame.y(row.dropped_since));
    drawLabelled(frame, frame.session.series.shown, "shown", "video");
  },
  hover(frame, time) {
    const row = frame.session.at("player", time);
    return row && [`At ${asClock(row.time_s)}`, [["Shown a second", known(row.shown_per_s) ? String(row.shown_per_s) : "–"],
      ["Dropped, in all", `${row.dropped_since}, ${row.dropped}`], ["Shown in all", row.shown.toLocaleString("en")],
      ["Decoded", row.decoded.toLocaleString("en")], ["Errors", String(row.errors)], ["Audio played", asClock(row.audio_s)],
      ["Queued", `${row.queued_video} video, ${row.queued_audio} audio`]]];
  },
  describe: (session) => `${most(session.rows("player"), (row) => row.shown)} shown, ${most(session.rows("player"), (row) => row.dropped)} dropped`,
};

const sinkPlot = {
  id: "sinks",
  title: "Television: taken",
  hint: "by its sinks",
  height: 110,
  unit: "b/s",
  domain: (sessions) => [0, 1.1 * Math.max(1e4, ...sessions.map((session) => most(session.rows("sinks"), (row) => row.rate_bps)))],
  ticks: (session, domain) => d3.scaleLinear().domain(domain).ticks(4).map((value) => ({ value, text: scaled(value, "") })),
  present: (session) => session.rows("sinks").length > 0,
  draw(frame) {
    for (const stream of ["audio", "video"]) {
      const points = frame.session.rows("sinks").filter((row) => row.stream === stream).map((row) => [row.time_s, row.rate_bps]);
      drawLabelled(frame, points, stream, stream);
    }
  },
  hover(frame, time) {
    const rows = ["video", "audio", "subtitle"].map((stream) =>
      frame.session.rows("sinks").filter((row) => row.stream === stream && row.time_s <= time).pop()).filter(Boolean);
    return rows.length ? [`At ${asClock(time)}`, rows.flatMap((row) => [[kLaneTitles[row.stream],
      `${asRate(row.rate_bps)}; ${row.blocks.toLocaleString("en")} blocks, ${asBytes(row.bytes)}`],
      ["", `told to wait ${row.refused_since} times, in all ${row.refused.toLocaleString("en")}; flushed ${row.flushes} times`]])] : null;
  },
  describe: () => "bytes a second",
};

const kPlots = [levelPlot, bufferPlot, linkPlot, requestPlot, positionPlot, subtitlePlot, picturePlot, sinkPlot];
