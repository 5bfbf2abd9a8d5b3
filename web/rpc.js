// RpcSocket: JSON-RPC 2.0 over the service's WebSocket (/ws), with the
// token of the page's own address (?token=) passed on, events delivered to
// onEvent, and a new connection after a loss (onOpen runs again, onClose
// tells the page it is gone). Calls made while closed fail at once.
export class RpcSocket {
  constructor({ onOpen, onClose, onEvent }) {
    this.onOpen = onOpen;
    this.onClose = onClose;
    this.onEvent = onEvent;
    this.nextId = 1;
    this.waiting = new Map(); // id -> {resolve, reject}
    this.retryMs = 500;
    this.connect();
  }

  url() {
    const token = new URLSearchParams(location.search).get('token');
    const scheme = location.protocol === 'https:' ? 'wss:' : 'ws:';
    return `${scheme}//${location.host}/ws` + (token ? `?token=${encodeURIComponent(token)}` : '');
  }

  connect() {
    const ws = new WebSocket(this.url());
    this.ws = ws;
    ws.onopen = () => {
      this.retryMs = 500;
      this.onOpen();
    };
    ws.onmessage = (message) => this.receive(JSON.parse(message.data));
    ws.onclose = () => {
      if (this.ws !== ws) return;
      for (const { reject } of this.waiting.values()) reject(new Error('connection lost'));
      this.waiting.clear();
      this.onClose();
      setTimeout(() => this.connect(), this.retryMs);
      this.retryMs = Math.min(this.retryMs * 2, 5000);
    };
  }

  get open() { return this.ws.readyState === WebSocket.OPEN; }

  receive(message) {
    if (Array.isArray(message)) return message.forEach((one) => this.receive(one));
    if (message.method === 'event') return this.onEvent(message.params[0], message.params[1]);
    const waiter = this.waiting.get(message.id);
    if (!waiter) return;
    this.waiting.delete(message.id);
    if (message.error) waiter.reject(new Error(message.error.message));
    else waiter.resolve(message.result);
  }

  request(method, params) {
    return { jsonrpc: '2.0', id: this.nextId++, method, params };
  }

  wait(id) {
    return new Promise((resolve, reject) => this.waiting.set(id, { resolve, reject }));
  }

  call(method, params = []) {
    if (!this.open) return Promise.reject(new Error('not connected'));
    const request = this.request(method, params);
    const answer = this.wait(request.id);
    this.ws.send(JSON.stringify(request));
    return answer;
  }

  // One batch: [[method, params], ...] -> the results in order; a failed
  // call gives null in its place.
  batch(calls) {
    if (calls.length === 0) return Promise.resolve([]);
    if (!this.open) return Promise.reject(new Error('not connected'));
    const requests = calls.map(([method, params]) => this.request(method, params));
    const answers = requests.map((request) => this.wait(request.id).catch(() => null));
    this.ws.send(JSON.stringify(requests));
    return Promise.all(answers);
  }
}
