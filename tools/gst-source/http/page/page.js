// The page of a run. It asks the API of its own origin and nobody else.
"use strict";

const POINTS = 600; // a point a second
const PICTURE_EVERY = 5000; // ms
const REASK = 1200; // ms, while a first picture is being made

const $ = (id) => document.getElementById(id);
const all = (root, selector) => root.querySelector(selector);
const sourcePath = (name) => "api/sources/" + encodeURIComponent(name);
const sourceHash = (name) => "#/source/" + encodeURIComponent(name);

// ---- numbers and times for people --------------------------------------------------------------------------------

function scaled(value, step, units) {
  let unit = 0;
  while (value >= step * 0.9995 && unit + 1 < units.length) {
    value /= step;
    ++unit;
  }
  const digits = unit === 0 || value >= 99.95 ? 0 : value >= 9.995 ? 1 : 2;
  return value.toFixed(digits) + " " + units[unit];
}
const formatRate = (bps) => (bps > 0 ? scaled(bps, 1000, ["b/s", "kb/s", "Mb/s", "Gb/s"]) : "0 b/s");
const formatBytes = (bytes) => scaled(bytes, 1000, ["B", "kB", "MB", "GB", "TB", "PB"]);
const formatCount = (number) => number.toLocaleString("en-US").replace(/,/g, "\u202f");
const formatFps = (fps) => (fps > 0 ? String(Math.round(fps * 100) / 100) : "0");
const plural = (number, one, many) => formatCount(number) + " " + (number === 1 ? one : many);

function formatDuration(s) {
  if (s < 1) {
    return s.toFixed(2) + " s";
  }
  if (s < 90) {
    return (s < 10 ? Math.round(s * 10) / 10 : Math.round(s)) + " s";
  }
  if (s < 5400) {
    return Math.round(s / 60) + " min";
  }
  return s < 129600 ? (s / 3600).toFixed(1) + " h" : (s / 86400).toFixed(1) + " days";
}
const formatClock = (date) => [date.getHours(), date.getMinutes(), date.getSeconds()].map((n) => String(n).padStart(2, "0")).join(":");
function formatMoment(text) {
  const date = new Date(text);
  if (Number.isNaN(date.getTime())) {
    return "";
  }
  const ago = (Date.now() - date.getTime()) / 1000;
  const day = ago > 43200 ? date.toLocaleDateString(undefined, { day: "numeric", month: "short" }) + " " : "";
  return day + formatClock(date) + (ago >= 1 ? " (" + formatDuration(ago) + " ago)" : "");
}

// ---- what is known of a source ----------------------------------------------------------------------------------

// How a source is, for a person: a state of the library and what reaches the buffer in one word.
function condition(source) {
  if (source.state === "stop") {
    return { group: "stopped", word: "Stopped", rank: 3 };
  }
  if (source.flow === "live") {
    return { group: "live", word: "Live", rank: 4 };
  }
  if (source.standing === "failing") {
    return { group: "failing", word: "Failing", rank: 0 };
  }
  if (source.state === "reconnect") {
    return { group: "waiting", word: source.protocol === "srt" && source.attempts <= 1 ? "Waiting" : "Reconnecting", rank: 1 };
  }
  return source.flow === "silent" ? { group: "waiting", word: "Silent", rank: 1 } : { group: "waiting", word: "Waiting", rank: 2 };
}

function ageOf(source) {
  const ages = [source.video_age_ms, source.audio_age_ms].filter((age) => age !== null);
  return ages.length > 0 ? Math.min(...ages) / 1000 : null;
}
const rateOf = (source) => source.video_bitrate_bps + source.audio_bitrate_bps;
const lossOf = (source) => source.readers.reduce((sum, reader) => sum + reader.lost_frames, 0);

function reasonOf(source) {
  const how = condition(source);
  if (how.group === "live" || how.group === "stopped") {
    return null;
  }
  let text = "";
  if (how.group === "failing" && source.last_error) {
    text = source.last_error;
    if (source.last_error_code && !text.includes(source.last_error_code)) {
      text += " (" + source.last_error_code + ")";
    }
  } else if (how.word === "Silent") {
    text = "Connected, but no frame for " + formatDuration(ageOf(source) || 0);
  } else if (source.state === "connected") {
    text = "Connected, and no frame has come yet";
  } else {
    text = how.word === "Reconnecting" ? "The session has ended" : "No frame has come yet";
  }
  const more = [];
  if (how.group === "failing" && source.last_error_time) {
    more.push(formatMoment(source.last_error_time));
  }
  if (source.retry_in_s !== null) {
    more.push("next attempt in " + formatDuration(Math.max(1, Math.round(source.retry_in_s))));
  }
  if (source.attempts > 1) {
    more.push(plural(source.attempts, "attempt", "attempts"));
  }
  return { text, more: more.join(" \u00b7 "), mild: how.group !== "failing" };
}

function mediaOf(source) {
  const parts = [];
  if (source.video_codec) {
    let text = source.video_codec;
    if (source.video_width_px) {
      text += " " + source.video_width_px + "\u00d7" + source.video_height_px + (source.video_scan === "interlaced" ? "i" : "");
    }
    const fps = source.video_announced_fps || source.video_measured_fps;
    parts.push(fps > 0 ? text + " " + formatFps(fps) + " fps" : text);
  }
  if (source.audio_codec) {
    const rate = source.audio_sample_rate_hz ? " " + source.audio_sample_rate_hz / 1000 + " kHz" : "";
    const channels = { 1: " mono", 2: " stereo" }[source.audio_channels] || (source.audio_channels ? " " + source.audio_channels + " ch" : "");
    parts.push(source.audio_codec + rate + channels);
  }
  return parts;
}

// ---- asking the service -----------------------------------------------------------------------------------------

class NeedsToken extends Error {}

async function ask(path, options = {}) {
  const token = sessionStorage.getItem("token");
  const headers = { ...options.headers };
  if (token) {
    headers.Authorization = "Bearer " + token;
  }
  const abort = new AbortController();
  const timer = setTimeout(() => abort.abort(), 10000);
  try {
    const response = await fetch(path, { ...options, headers, signal: abort.signal, credentials: "omit" });
    if (response.status === 401) {
      throw new NeedsToken();
    }
    return response;
  } finally {
    clearTimeout(timer);
  }
}

async function askJson(path) {
  const response = await ask(path);
  if (!response.ok) {
    const error = new Error("status " + response.status);
    error.status = response.status;
    throw error;
  }
  return response.json();
}

// ---- the model --------------------------------------------------------------------------------------------------

const model = {
  sources: new Map(), // by name: {record, how, history, picture, card}
  run: null,
  cpu: null,
  lastGood: 0,
  answered: false,
  view: { page: "overview", name: "", q: "", state: "", sort: "name" },
};

// Curves begin with the history and go on with what every poll brings.
function extendHistory(entry, now) {
  const history = entry.history;
  if (!history || !history.rate) {
    return;
  }
  const steps = Math.min(Math.round((now - history.at) / 1000), POINTS);
  if (steps < 1) {
    return;
  }
  // A wait of a second or two between polls is no gap; silence of the service is one.
  const known = steps <= 4;
  const add = (list, value) => {
    for (let i = 1; i <= steps; ++i) {
      list.push(known || i === steps ? value : null);
    }
    list.splice(0, Math.max(0, list.length - POINTS));
  };
  add(history.rate, entry.record.video_bitrate_bps);
  add(history.audio, entry.record.audio_bitrate_bps);
  add(history.fps, entry.record.video_measured_fps);
  history.at += steps * 1000;
}

const historyQueue = [];
let historyBusy = 0;
function wantHistory(entry) {
  if (entry.history) {
    return;
  }
  entry.history = {};
  historyQueue.push(entry);
  pumpHistory();
}
async function pumpHistory() {
  if (historyBusy >= 2 || historyQueue.length === 0) {
    return;
  }
  const entry = historyQueue.shift();
  ++historyBusy;
  try {
    const got = await askJson(sourcePath(entry.record.name) + "/history");
    entry.history = { at: performance.now(), rate: got.video_bps, audio: got.audio_bps, fps: got.video_fps };
    show(entry);
  } catch (error) {
    entry.history = null; // asked for again with the next poll
  } finally {
    --historyBusy;
  }
  pumpHistory();
}

function takeSources(records) {
  const now = performance.now();
  const names = new Set();
  for (const record of records) {
    names.add(record.name);
    let entry = model.sources.get(record.name);
    if (!entry) {
      entry = { record, how: condition(record), history: null, picture: null, card: null, seen: false, shownAt: 0 };
      model.sources.set(record.name, entry);
    }
    entry.record = record;
    entry.how = condition(record);
    extendHistory(entry, now);
  }
  for (const [name, entry] of model.sources) {
    if (!names.has(name)) {
      dropPicture(entry);
      if (entry.card) {
        watcher.unobserve(entry.card);
        entry.card.remove();
      }
      model.sources.delete(name);
    }
  }
}

function takeRun(run) {
  if (model.run && run.elapsed_s > model.run.elapsed_s) {
    model.cpu = (100 * (run.process.cpu_s - model.run.process.cpu_s)) / (run.elapsed_s - model.run.elapsed_s);
  } else if (!model.run && run.elapsed_s > 0) {
    model.cpu = (100 * run.process.cpu_s) / run.elapsed_s;
  }
  model.run = run;
}

let pollTimer = 0;
let polling = false;
async function poll() {
  if (polling) {
    return;
  }
  polling = true;
  clearTimeout(pollTimer);
  try {
    const [run, sources] = await Promise.all([askJson("api/run"), askJson("api/sources")]);
    model.lastGood = Date.now();
    model.answered = true;
    takeRun(run);
    takeSources(sources);
    if (!$("login").hidden) {
      $("login").hidden = true;
      $("token").value = "";
    }
    render();
  } catch (error) {
    if (error instanceof NeedsToken) {
      askForToken();
      polling = false;
      return;
    }
  }
  showConnection();
  polling = false;
  // Larger fleets at half the pace; a page that nobody sees asks seldom.
  const pause = document.hidden ? 10000 : model.sources.size > 60 ? 2000 : 1000;
  pollTimer = setTimeout(poll, pause);
}

function showConnection() {
  const lost = Date.now() - model.lastGood > 3500;
  const old = model.run && model.run.sample_age_s > 5;
  const banner = $("banner");
  let text = "";
  if (lost) {
    text = model.answered ? "No answer since " + formatClock(new Date(model.lastGood)) + ". Trying again." : "No answer yet. Trying again.";
  } else if (old) {
    text = "The service answers, but has looked at no source for " + formatDuration(model.run.sample_age_s) + ".";
  }
  banner.hidden = !text;
  setText(banner, text);
  document.body.classList.toggle("stale", Boolean(text));
}

// ---- pictures ---------------------------------------------------------------------------------------------------

function dropPicture(entry) {
  if (entry.picture && entry.picture.url) {
    URL.revokeObjectURL(entry.picture.url);
  }
  entry.picture = null;
}

const wantsPicture = (entry) => (model.view.page === "source" ? entry.record.name === model.view.name : entry.seen && shown(entry));

let pictureBusy = false;
async function nextPicture() {
  if (pictureBusy || document.hidden || !$("login").hidden) {
    return;
  }
  const now = performance.now();
  let entry = null;
  for (const other of model.sources.values()) {
    if (wantsPicture(other) && (!other.picture || now >= other.picture.askAt) &&
        (!entry || (other.picture ? other.picture.askAt : 0) < (entry.picture ? entry.picture.askAt : 0))) {
      entry = other;
    }
  }
  if (!entry) {
    return;
  }
  pictureBusy = true;
  try {
    await fetchPicture(entry);
  } catch (error) {
    entry.picture = { ...entry.picture, askAt: performance.now() + PICTURE_EVERY };
  }
  pictureBusy = false;
  showPictureOf(entry);
  nextPicture();
}

async function fetchPicture(entry) {
  const response = await ask(sourcePath(entry.record.name) + "/picture?else=json");
  const old = entry.picture || {};
  if (response.headers.get("Content-Type") !== "image/jpeg") {
    const why = await response.json().catch(() => ({}));
    entry.picture = { ...old, reason: why.reason || "", askAt: performance.now() + (why.reason ? PICTURE_EVERY : REASK) };
    return;
  }
  const tag = response.headers.get("ETag");
  const made = performance.now() - 1000 * Number(response.headers.get("Age") || 0);
  entry.picture = { ...old, tag, made, reason: "", askAt: performance.now() + PICTURE_EVERY };
  if (tag !== old.tag) {
    const blob = await response.blob();
    entry.picture.url = URL.createObjectURL(blob);
    if (old.url) {
      setTimeout(() => URL.revokeObjectURL(old.url), 1000);
    }
  }
}

function showPicture(box, entry) {
  const image = all(box, "img");
  const picture = entry.picture;
  const has = Boolean(picture && picture.url);
  if (has && image.dataset.url !== picture.url) {
    image.dataset.url = picture.url;
    image.src = picture.url;
  }
  image.hidden = !has;
  box.classList.toggle("empty", !has);
  image.alt = has ? "Picture of " + entry.record.name : "";
  const record = entry.record;
  let text = "";
  if (!has) {
    if (record.video_presence === "absent" || (!record.video_codec && record.audio_codec)) {
      text = "Audio only";
    } else if (record.video_frames === 0) {
      text = "No picture yet";
    } else {
      text = picture && picture.reason ? "No picture: " + picture.reason : "Picture on its way";
    }
  }
  setText(all(box, ".no-picture"), text);
  const age = has ? (performance.now() - picture.made) / 1000 : 0;
  const label = all(box, ".picture-age");
  label.hidden = age < 12;
  setText(label, formatDuration(age) + " old");
}

function showPictureOf(entry) {
  if (entry.card) {
    showPicture(all(entry.card, ".picture"), entry);
  }
  if (model.view.page === "source" && entry.record.name === model.view.name && all($("detail"), ".picture")) {
    showPicture(all($("detail"), ".picture"), entry);
  }
}

// ---- drawing ----------------------------------------------------------------------------------------------------

function setText(element, text) {
  if (element.textContent !== text) {
    element.textContent = text;
  }
}
// Each in a span, which is not torn apart.
function setParts(element, parts) {
  while (element.children.length > parts.length) {
    element.lastElementChild.remove();
  }
  parts.forEach((text, i) => setText(element.children[i] || element.appendChild(document.createElement("span")), text));
}
function setAttribute(element, name, value) {
  if (element.getAttribute(name) !== value) {
    element.setAttribute(name, value);
  }
}

// The top of a curve's scale: 1, 2 or 5 times a power of ten.
function niceTop(values, floor) {
  const most = Math.max(floor, ...values.map((value) => value || 0));
  const power = 10 ** Math.floor(Math.log10(most));
  return [1, 1.5, 2, 3, 4, 5, 6, 8, 10].map((factor) => factor * power).find((top) => top >= most * 1.15) || most * 1.2;
}

// Points of a curve as a path; gaps stay gaps. Neighbours are put together where the screen has fewer columns.
function curve(values, top, height, columns, closed) {
  const group = Math.max(1, Math.ceil(POINTS / columns));
  const offset = POINTS - values.length;
  let path = "";
  let begun = null;
  let last = 0;
  const close = () => {
    if (closed && begun !== null) {
      path += "L" + last + " " + height + "L" + begun + " " + height + "Z";
    }
    begun = null;
  };
  for (let i = 0; i < values.length; i += group) {
    const part = values.slice(i, i + group).filter((value) => value !== null);
    if (part.length === 0) {
      close();
      continue;
    }
    const value = part.reduce((sum, each) => sum + each, 0) / part.length;
    const x = Math.min(POINTS, offset + i + group - 0.5);
    const y = (height - 1 - (Math.min(value, top) / top) * (height - 3)).toFixed(1);
    path += (begun === null ? "M" : "L") + x + " " + y;
    begun = begun === null ? x : begun;
    last = x;
  }
  close();
  return path;
}

function drawCurve(svg, values, top, height, columns) {
  setAttribute(all(svg, ".area"), "d", curve(values, top, height, columns, true));
  setAttribute(all(svg, ".line"), "d", curve(values, top, height, columns, false));
}

function setState(element, badge, how) {
  for (const group of ["live", "waiting", "failing", "stopped"]) {
    badge.classList.toggle(group, group === how.group);
  }
  element.classList.toggle("not-live", how.group !== "live");
  setText(all(badge, "b"), how.word);
}

function setProblem(element, reason) {
  element.hidden = !reason;
  if (reason) {
    element.classList.toggle("mild", reason.mild);
    const text = reason.text + "\n" + reason.more;
    if (element.dataset.text !== text) {
      element.dataset.text = text;
      const more = document.createElement("span");
      more.textContent = reason.more ? " \u2014 " + reason.more : "";
      element.replaceChildren(reason.text, more);
    }
  }
}

const readersText = (record) => {
  const programs = record.readers.length;
  return programs === 0 ? "None" : String(programs);
};

function makeCard(entry) {
  const card = $("card-template").content.firstElementChild.cloneNode(true);
  const name = entry.record.name;
  card.dataset.name = name;
  setText(all(card, "h2"), name);
  all(card, "h2").title = name;
  all(card, ".cover").href = sourceHash(name);
  entry.card = card;
  watcher.observe(card);
  return card;
}

function showCard(entry) {
  const { card, record } = entry;
  setState(card, all(card, ".badge"), entry.how);
  setAttribute(all(card, ".cover"), "aria-label", record.name + ", " + entry.how.word);
  setText(all(card, ".url"), record.url);
  setAttribute(all(card, ".url"), "title", record.url);
  setProblem(all(card, ".problem"), reasonOf(record));
  setParts(all(card, ".media"), mediaOf(record));
  const age = ageOf(record);
  setText(all(card, ".age"), age === null ? "None yet" : formatDuration(age) + " ago");
  const lost = lossOf(record);
  const readers = all(card, ".readers");
  setText(readers, readersText(record) + (lost > 0 ? ", " + formatCount(lost) + " lost" : ""));
  readers.classList.toggle("bad", lost > 0);
  setText(all(card, ".rebuilds"), formatCount(record.rebuilds));
  setText(all(card, ".rate b"), formatRate(rateOf(record)));
  setText(all(card, ".fps b"), record.video_codec ? formatFps(record.video_measured_fps) + " fps" : "-");
  showPicture(all(card, ".picture"), entry);
  wantHistory(entry);
  const history = entry.history;
  if (history && history.rate) {
    const sum = history.rate.map((value, i) => (value === null ? null : value + (history.audio[i] || 0)));
    drawCurve(all(card, ".rate svg"), sum, niceTop(sum, 1000), 40, 150);
    drawCurve(all(card, ".fps svg"), history.fps, niceTop(history.fps, 1), 40, 150);
  }
}

const watcher = new IntersectionObserver((changes) => {
  for (const change of changes) {
    const entry = model.sources.get(change.target.dataset.name);
    if (entry) {
      entry.seen = change.isIntersecting;
      if (entry.seen) {
        showCard(entry);
      }
    }
  }
  nextPicture();
}, { rootMargin: "120px" });

function show(entry) {
  if (model.view.page === "overview" && entry.card && entry.seen) {
    showCard(entry);
  } else if (model.view.page === "source" && model.view.name === entry.record.name) {
    showDetail();
  }
}

// Whether the filters let a source through.
function shown(entry) {
  const { q, state } = model.view;
  if (state && entry.how.group !== state && !(state === "waiting" && entry.how.group === "stopped")) {
    return false;
  }
  const text = (entry.record.name + " " + entry.record.url + " " + entry.how.word + " " + entry.record.state + " " + entry.record.protocol).toLowerCase();
  return q.toLowerCase().split(/\s+/).every((word) => text.includes(word));
}

const byName = (a, b) => a.record.name.localeCompare(b.record.name, undefined, { numeric: true });
const ORDERS = {
  name: byName,
  state: (a, b) => a.how.rank - b.how.rank || byName(a, b),
  rate: (a, b) => rateOf(b.record) - rateOf(a.record) || byName(a, b),
  age: (a, b) => (ageOf(b.record) ?? Infinity) - (ageOf(a.record) ?? Infinity) || byName(a, b),
  rebuilds: (a, b) => b.record.rebuilds - a.record.rebuilds || byName(a, b),
};

let orderedAt = 0;
let order = [];
function ordered(anew) {
  const entries = [...model.sources.values()];
  // Numbers that change all the time must not make cards jump about all the time.
  const calm = ["rate", "age"].includes(model.view.sort) && performance.now() - orderedAt < 8000;
  if (anew || !calm || order.length !== entries.length || order.some((entry) => !model.sources.has(entry.record.name))) {
    const compare = ORDERS[model.view.sort];
    order = entries.sort((a, b) => (Number.isNaN(compare(a, b)) ? byName(a, b) : compare(a, b)));
    orderedAt = performance.now();
  }
  return order;
}

function renderOverview(anew) {
  const list = $("cards");
  const counts = { live: 0, waiting: 0, failing: 0 };
  let visible = 0;
  let place = list.firstElementChild;
  const focused = document.activeElement;
  for (const entry of ordered(anew)) {
    ++counts[entry.how.group === "stopped" ? "waiting" : entry.how.group];
    const card = entry.card || makeCard(entry);
    if (card === place) {
      place = place.nextElementSibling;
    } else {
      list.insertBefore(card, place);
    }
    const visibleNow = shown(entry);
    card.hidden = !visibleNow;
    visible += visibleNow ? 1 : 0;
    if (visibleNow && entry.seen) {
      showCard(entry);
    }
  }
  if (focused && focused !== document.activeElement && document.contains(focused)) {
    focused.focus({ preventScroll: true });
  }
  setText($("count-all"), String(model.sources.size));
  for (const group of ["live", "waiting", "failing"]) {
    setText($("count-" + group), String(counts[group]));
  }
  for (const chip of document.querySelectorAll(".chip")) {
    setAttribute(chip, "aria-pressed", String(chip.dataset.state === model.view.state));
  }
  const filtered = model.view.q !== "" || model.view.state !== "";
  setText($("shown"), filtered ? visible + " of " + plural(model.sources.size, "source", "sources") + " shown" : "");
  $("nothing").hidden = visible > 0;
  setText($("nothing"), model.sources.size === 0 ? "This run has no sources." : "No source matches the filter.");
}

function pairs(list, rows) {
  while (list.children.length > rows.length) {
    list.lastElementChild.remove();
  }
  rows.forEach(([term, value, bad], i) => {
    let row = list.children[i];
    if (!row) {
      row = document.createElement("div");
      row.append(document.createElement("dt"), document.createElement("dd"));
      list.append(row);
    }
    setText(row.firstElementChild, term);
    setText(row.lastElementChild, value);
    row.lastElementChild.classList.toggle("bad", Boolean(bad));
  });
}

function trackRows(record, kind) {
  const of = (field) => record[kind + "_" + field];
  if (!of("codec") && of("frames") === 0) {
    return [["Track", of("presence") === "absent" ? "the stream has none" : "nothing yet"]];
  }
  const rows = [["Codec", of("codec") || "-"]];
  if (kind === "video") {
    rows.push(["Size", of("width_px") ? of("width_px") + " \u00d7 " + of("height_px") + " " + (of("scan") || "") : "-"]);
    rows.push(["Frame rate", formatFps(of("measured_fps")) + " fps" + (of("announced_fps") ? " (announced " + formatFps(of("announced_fps")) + ")" : "")]);
  } else {
    rows.push(["Sample rate", of("sample_rate_hz") ? formatCount(of("sample_rate_hz")) + " Hz" : "-"]);
    rows.push(["Channels", of("channels") ? String(of("channels")) : "-"]);
  }
  rows.push(["Bit rate", formatRate(of("bitrate_bps"))]);
  rows.push(["Frames", formatCount(of("frames"))]);
  if (kind === "video") {
    rows.push(["Key frames", formatCount(of("key_frames"))]);
  }
  rows.push(["Data", formatBytes(of("bytes"))]);
  rows.push(["Last frame", of("age_ms") === null ? "none" : formatDuration(of("age_ms") / 1000) + " ago"]);
  if (of("left_out_frames") > 0) {
    rows.push(["Left out, too large", formatCount(of("left_out_frames")), true]);
  }
  return rows;
}

function sessionRows(record) {
  const mean = (times) => (times.count > 0 ? formatDuration(times.sum_s / times.count) + " on average, " + plural(times.count, "time", "times") : "-");
  const rows = [
    ["Protocol", record.protocol.toUpperCase()],
    ["State", record.state || "not opened yet"],
    ["Buffer", record.buffer || "-"],
    ["Rebuilds", formatCount(record.rebuilds)],
  ];
  for (const [reason, count] of Object.entries(record.rebuild_reasons)) {
    rows.push(["\u2014 " + reason, formatCount(count)]);
  }
  rows.push(["Attempts without frames", formatCount(record.attempts)]);
  rows.push(["First frame after", mean(record.first_frame)]);
  rows.push(["Recovery", mean(record.recovery)]);
  if (record.last_error) {
    rows.push(["Last error", record.last_error + (record.last_error_time ? ", " + formatMoment(record.last_error_time) : "")]);
  }
  return rows;
}

function showReaders(detail, record) {
  const rows = record.readers.map((reader) => [reader.program || "-", String(reader.pid), reader.kind, formatCount(reader.frames), formatBytes(reader.bytes),
    formatCount(reader.lost_frames), reader.age_ms === null ? "-" : formatDuration(reader.age_ms / 1000) + " ago"]);
  all(detail, "table").hidden = rows.length === 0;
  all(detail, ".no-readers").hidden = rows.length > 0;
  const body = all(detail, "tbody");
  while (body.children.length > rows.length) {
    body.lastElementChild.remove();
  }
  rows.forEach((cells, i) => {
    const row = body.children[i] || body.appendChild(document.createElement("tr"));
    cells.forEach((text, column) => {
      const cell = row.children[column] || row.appendChild(document.createElement("td"));
      setText(cell, text);
      cell.className = column > 2 ? "number" + (column === 5 && text !== "0" ? " bad" : "") : "";
    });
  });
}

function showPlots(detail, entry) {
  wantHistory(entry);
  const history = entry.history;
  const record = entry.record;
  const rate = all(detail, "[data-plot=rate]");
  const fps = all(detail, "[data-plot=fps]");
  setText(all(rate, "b"), formatRate(record.video_bitrate_bps) + (record.audio_codec ? " + " + formatRate(record.audio_bitrate_bps) : ""));
  setText(all(fps, "b"), formatFps(record.video_measured_fps) + " fps");
  if (!history || !history.rate) {
    return;
  }
  const top = niceTop([...history.rate, ...history.audio], 1000);
  drawCurve(all(rate, "svg"), history.rate, top, 100, 300);
  setAttribute(all(rate, ".second"), "d", curve(history.audio, top, 100, 300, false));
  const flat = (values) => values.every((value) => !value);
  setText(all(rate, ".top"), flat(history.rate) && flat(history.audio) ? "" : formatRate(top));
  setAttribute(all(rate, "svg"), "aria-label", "Bit rate of ten minutes, now " + formatRate(rateOf(record)));
  const fpsTop = niceTop(history.fps, 1);
  drawCurve(all(fps, "svg"), history.fps, fpsTop, 100, 300);
  setText(all(fps, ".top"), flat(history.fps) ? "" : formatFps(fpsTop) + " fps");
  setAttribute(all(fps, "svg"), "aria-label", "Frame rate of ten minutes, now " + formatFps(record.video_measured_fps) + " per second");
}

function makeDetail(name) {
  const detail = $("detail");
  detail.replaceChildren($("detail-template").content.cloneNode(true));
  detail.dataset.name = name;
  all(detail, ".back").href = overviewHash();
  setText(all(detail, "h1"), name);
  all(detail, ".restart").addEventListener("click", () => confirmRestart(name));
  const legend = all(detail, ".legend");
  const mark = (second) => {
    const line = document.createElement("i");
    line.className = second ? "second" : "";
    return line;
  };
  legend.append(mark(false), "Video", mark(true), "Audio");
  logLines = null;
  refreshLog();
}

function showDetail() {
  const { name } = model.view;
  const detail = $("detail");
  const entry = model.sources.get(name);
  if (!entry) {
    const text = document.createElement("p");
    text.className = "nothing";
    const back = document.createElement("a");
    back.href = overviewHash();
    back.textContent = "All sources";
    text.append("There is no source \u201c" + name + "\u201d. ", back);
    detail.replaceChildren(text);
    delete detail.dataset.name;
    return;
  }
  if (detail.dataset.name !== name) {
    makeDetail(name);
    all(detail, "h1").focus({ preventScroll: true });
  }
  const record = entry.record;
  setState(detail, all(detail, ".badge"), entry.how);
  setText(all(detail, ".url"), record.url);
  setProblem(all(detail, ".problem"), reasonOf(record));
  showPicture(all(detail, ".picture"), entry);
  showPlots(detail, entry);
  for (const kind of ["video", "audio"]) {
    pairs(all(detail, ".pairs." + kind), trackRows(record, kind));
  }
  pairs(all(detail, ".pairs.session"), sessionRows(record));
  showReaders(detail, record);
}

let logLines = null;
async function refreshLog() {
  const { page, name } = model.view;
  if (page !== "source" || document.hidden || !model.sources.has(name)) {
    return;
  }
  try {
    const lines = await askJson(sourcePath(name) + "/log");
    const log = all($("detail"), ".log");
    const text = lines.join("\n") || "No line of the log names this source.";
    if (log && model.view.name === name && text !== logLines) {
      logLines = text;
      log.textContent = text;
      if (all($("detail"), ".follow").checked) {
        log.scrollTop = log.scrollHeight;
      }
    }
  } catch (error) {
    // The banner says that nothing answers.
  }
}

function renderVitals() {
  const run = model.run;
  let rate = 0;
  for (const entry of model.sources.values()) {
    rate += rateOf(entry.record);
  }
  setText($("vital-rate"), formatRate(rate));
  setText($("vital-cpu"), model.cpu === null ? "-" : (model.cpu < 10 ? model.cpu.toFixed(1) : Math.round(model.cpu)) + " %");
  setText($("vital-memory"), formatBytes(run.process.resident_bytes));
  setText($("vital-up"), formatDuration(run.elapsed_s));
}

function render(anew = false) {
  if (!model.answered || !$("login").hidden) {
    return;
  }
  const source = model.view.page === "source";
  $("overview").hidden = source;
  $("detail").hidden = !source;
  document.title = (source ? model.view.name + " \u2013 " : "") + "gst-source";
  renderVitals();
  if (source) {
    showDetail();
  } else {
    delete $("detail").dataset.name;
    renderOverview(anew);
  }
}

// ---- what a person does -----------------------------------------------------------------------------------------

function overviewHash() {
  const query = new URLSearchParams();
  if (model.view.q) {
    query.set("q", model.view.q);
  }
  if (model.view.state) {
    query.set("state", model.view.state);
  }
  if (model.view.sort !== "name") {
    query.set("sort", model.view.sort);
  }
  const text = query.toString();
  return "#/" + (text ? "?" + text : "");
}

function readHash() {
  const [path, query] = (location.hash.slice(1) || "/").split("?");
  const found = path.match(/^\/source\/([^/]+)$/);
  const before = model.view.page;
  if (found) {
    model.view.page = "source";
    try {
      model.view.name = decodeURIComponent(found[1]);
    } catch (error) {
      model.view.name = found[1];
    }
  } else {
    const wanted = new URLSearchParams(query || "");
    model.view.page = "overview";
    model.view.q = wanted.get("q") || "";
    model.view.state = ["live", "waiting", "failing"].includes(wanted.get("state")) ? wanted.get("state") : "";
    model.view.sort = Object.hasOwn(ORDERS, wanted.get("sort")) ? wanted.get("sort") : "name";
    $("filter").value = model.view.q;
    $("sort").value = model.view.sort;
  }
  if (before !== model.view.page) {
    window.scrollTo(0, 0);
  }
  render(true);
  nextPicture();
}

function changeView(change) {
  Object.assign(model.view, change);
  history.replaceState(null, "", overviewHash());
  render(true);
  nextPicture();
}

let toastTimer = 0;
function toast(text) {
  $("toast").textContent = text;
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => ($("toast").textContent = ""), 5000);
}

function confirmRestart(name) {
  const dialog = $("confirm");
  $("confirm-title").textContent = "Restart " + name + "?";
  dialog.returnValue = "";
  dialog.onclose = async () => {
    if (dialog.returnValue !== "restart") {
      return;
    }
    try {
      const response = await ask(sourcePath(name) + "/restart", { method: "POST", headers: { "X-Requested-With": "page" } });
      const answer = await response.json().catch(() => ({}));
      toast(response.ok ? name + " restarts" : "Not restarted: " + (answer.error || "status " + response.status));
    } catch (error) {
      if (error instanceof NeedsToken) {
        askForToken();
      } else {
        toast("Not restarted: no answer");
      }
    }
  };
  dialog.showModal();
}

function askForToken() {
  const wrong = sessionStorage.getItem("token") !== null;
  sessionStorage.removeItem("token");
  $("overview").hidden = true;
  $("detail").hidden = true;
  $("banner").hidden = true;
  $("login-error").textContent = wrong ? "The service does not take this token." : "";
  if ($("login").hidden) {
    $("login").hidden = false;
    $("token").focus();
  }
}

const THEMES = ["system", "light", "dark"];
function showTheme() {
  const theme = localStorage.getItem("theme") || "system";
  if (theme === "system") {
    delete document.documentElement.dataset.theme;
  } else {
    document.documentElement.dataset.theme = theme;
  }
  $("theme").textContent = "Theme: " + theme;
}

$("theme").addEventListener("click", () => {
  const theme = localStorage.getItem("theme") || "system";
  localStorage.setItem("theme", THEMES[(THEMES.indexOf(theme) + 1) % THEMES.length]);
  showTheme();
});
$("filter").addEventListener("input", (event) => changeView({ q: event.target.value.trim() }));
$("sort").addEventListener("change", (event) => changeView({ sort: event.target.value }));
for (const chip of document.querySelectorAll(".chip")) {
  chip.addEventListener("click", () => changeView({ state: model.view.state === chip.dataset.state ? "" : chip.dataset.state }));
}
$("login-form").addEventListener("submit", (event) => {
  event.preventDefault();
  sessionStorage.setItem("token", $("token").value);
  poll();
});
document.querySelector(".skip").addEventListener("click", (event) => {
  event.preventDefault();
  $("content").focus();
});
window.addEventListener("hashchange", readHash);
document.addEventListener("visibilitychange", () => {
  if (!document.hidden) {
    poll();
  }
});

showTheme();
readHash();
poll();
setInterval(showConnection, 1000);
setInterval(nextPicture, 500);
setInterval(refreshLog, 2000);
