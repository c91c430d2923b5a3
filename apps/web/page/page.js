// SPDX-License-Identifier: Apache-2.0
'use strict';

const list_interval_ms = 2000;
const retry_ms = 1000;
const behind_max_s = 0.5;   // further behind the newest picture the player jumps
const behind_aim_s = 0.08;  // to here
const kept_s = 10;          // of what was shown

const element = (id) => document.getElementById(id);
const known = new Map();  // the streams of the list, by their ids
const id_of = (stream) => `${stream.name}/${stream.channel}/${stream.stream}`;

// ---- the list ----

function text_of(stream) {
    const parts = [stream.codec || 'no key frame yet'];
    if (stream.width) parts.push(`${stream.width} x ${stream.height}`);
    if (stream.frames_per_second) parts.push(`${+stream.frames_per_second.toFixed(2)} frames/s`);
    return parts.join(', ');
}

// Entries stay the same elements, so that focus and a click under way are not lost.
function entry_of(stream) {
    const id = id_of(stream);
    let entry = [...element('streams').children].find((each) => each.dataset.id === id);
    if (!entry) {
        entry = document.createElement('li');
        entry.dataset.id = id;
        const button = document.createElement('button');
        button.type = 'button';
        button.append(document.createElement('span'), document.createElement('small'));
        button.addEventListener('click', () => play(known.get(id)));
        entry.append(button);
    }
    const button = entry.firstChild;
    button.firstChild.textContent = id;
    button.lastChild.textContent = text_of(stream);
    button.disabled = !stream.mime;
    button.setAttribute('aria-pressed', String(live !== null && live.id === id));
    return entry;
}

async function show_list() {
    try {
        const answer = await fetch('streams');
        if (!answer.ok) throw new Error((await answer.text()).trim());
        const streams = await answer.json();
        known.clear();
        streams.forEach((stream) => known.set(id_of(stream), stream));
        const entries = streams.map(entry_of);
        if (entries.some((entry, i) => element('streams').children[i] !== entry) ||
            entries.length !== element('streams').children.length) {
            element('streams').replaceChildren(...entries);
        }
        element('state').textContent = streams.length === 0 ? 'No stream has a history.' : '';
    } catch (error) {
        element('state').textContent = `The server does not answer: ${error.message}`;
    }
}

// ---- the picture ----

let live = null;

class Live {
    constructor(stream) {
        this.id = id_of(stream);
        this.stream = stream;
        this.clicked = performance.now();
        this.pictures = 0;
        this.latency_ms = null;
        this.first_ms = null;
        this.stopped = false;
        this.abort = null;  // of the present connection
        this.video = element('video');
        this.run();
    }

    stop() {
        this.stopped = true;
        this.abort.abort();
        this.video.removeAttribute('src');
        this.video.load();
    }

    // Until somebody stops it: a producer or server that is started again is asked anew. Whatever
    // ends a connection, its answer is given up, so that the server does not hold it.
    async run() {
        while (!this.stopped) {
            this.abort = new AbortController();
            try {
                await this.show(this.abort.signal);
            } catch (error) {
                if (this.stopped) return;
                element('figures').textContent = `${error.message}; trying again`;
            } finally {
                this.abort.abort();
            }
            await new Promise((done) => setTimeout(done, retry_ms));
        }
    }

    async show(signal) {
        const {name, channel, stream, mime} = known.get(this.id) ?? this.stream;
        const query = new URLSearchParams({name, channel, stream});
        const answer = await fetch(`live?${query}`, {signal});
        if (!answer.ok) throw new Error((await answer.text()).trim());
        const published_ms = Number(answer.headers.get('X-Published-Ms'));
        const buffer = await this.open(mime);
        this.count(published_ms, signal);
        const reader = answer.body.getReader();
        for (;;) {
            const {done, value} = await reader.read();
            if (done) throw new Error('the stream has ended');
            await this.append(buffer, value);
        }
    }

    async open(mime) {
        const source = new MediaSource();
        this.video.src = URL.createObjectURL(source);
        await new Promise((opened) => source.addEventListener('sourceopen', opened, {once: true}));
        URL.revokeObjectURL(this.video.src);
        this.video.play().catch(() => {});
        return source.addSourceBuffer(mime);
    }

    async append(buffer, bytes) {
        await this.change(buffer, () => buffer.appendBuffer(bytes));
        const ranges = this.video.buffered;
        if (ranges.length === 0) return;
        const end = ranges.end(ranges.length - 1);
        if (end - this.video.currentTime > behind_max_s) {
            this.video.currentTime = end - behind_aim_s;
        }
        const old = this.video.currentTime - kept_s;
        if (old > ranges.start(0) + kept_s) {
            await this.change(buffer, () => buffer.remove(0, old));
        }
    }

    change(buffer, what) {
        return new Promise((done, failed) => {
            buffer.onupdateend = done;
            buffer.onerror = () => failed(new Error('the picture cannot be shown'));
            what();
        });
    }

    // The video's time 0 is known in wall-clock time: on the same host, this is what a picture
    // took from its publisher to the screen.
    count(published_ms, signal) {
        const shown = (now, data) => {
            if (signal.aborted) return;
            this.pictures += 1;
            this.first_ms ??= performance.now() - this.clicked;
            this.latency_ms = Date.now() - (published_ms + data.mediaTime * 1000);
            element('figures').textContent = `${data.width} x ${data.height}, ` +
                `${this.pictures} pictures, ${Math.round(this.latency_ms)} ms behind`;
            this.video.requestVideoFrameCallback(shown);
        };
        this.video.requestVideoFrameCallback(shown);
    }
}

function play(stream) {
    stop();
    element('live').hidden = false;
    element('title').textContent = id_of(stream);
    element('figures').textContent = '';
    live = new Live(stream);
    show_list();
}

function stop() {
    if (live === null) return;
    live.stop();
    live = null;
    element('live').hidden = true;
    show_list();
}

element('stop').addEventListener('click', stop);
show_list();
setInterval(show_list, list_interval_ms);
