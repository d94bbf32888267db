// The 3-D relief of a height field: a mesh of at most MESH_SIDE vertices a
// side, heights times the network's vertical scale times the exaggeration,
// a picture draped on it, and a camera that orbits with the mouse.
"use strict";
window.Orogen = window.Orogen || {};
(function (Orogen) {
  const MESH_SIDE = 513;
  // Drawn on the processor (no graphics card): fewer vertices, no multisampling.
  const SOFTWARE_MESH_SIDE = 257;

  function softwareGL() {
    const gl = document.createElement("canvas").getContext("webgl2");
    if (!gl) return true;
    const info = gl.getExtension("WEBGL_debug_renderer_info");
    const name = info ? String(gl.getParameter(info.UNMASKED_RENDERER_WEBGL)) : "";
    gl.getExtension("WEBGL_lose_context")?.loseContext();
    return /swiftshader|llvmpipe|software/i.test(name);
  }

  class Relief {
    constructor(container) {
      const THREE = window.THREE;
      this.container = container;
      this.software = softwareGL();
      this.meshSide = this.software ? SOFTWARE_MESH_SIDE : MESH_SIDE;
      this.renderer = new THREE.WebGLRenderer({ antialias: !this.software, preserveDrawingBuffer: true });
      this.renderer.setPixelRatio(window.devicePixelRatio || 1);
      this.renderer.setClearColor(0x1b1d21);
      container.appendChild(this.renderer.domElement);
      this.scene = new THREE.Scene();
      this.camera = new THREE.PerspectiveCamera(45, 1, 0.001, 1000);
      this.scene.add(new THREE.HemisphereLight(0xdde6ff, 0x403830, 1.2));
      const sun = new THREE.DirectionalLight(0xffffff, 2.0);
      sun.position.set(-1, 1.2, -1);
      this.scene.add(sun);
      this.mesh = null;
      this.exaggeration = 1;
      // Orbit: angles and distance about a target.
      this.orbit = null;
      this.bindMouse();
      new ResizeObserver(() => this.resize()).observe(container);
    }

    // Builds the mesh of `field` for `world`; keeps the camera when it has one.
    show(field, world, drape) {
      const THREE = window.THREE;
      const step = Math.max(1, Math.ceil((Math.max(field.width, field.height) - 1) / (this.meshSide - 1)));
      const w = Math.floor((field.width - 1) / step) + 1, h = Math.floor((field.height - 1) / step) + 1;
      const [x0, y0, x1, y1] = world.extent;
      const positions = new Float32Array(w * h * 3), uvs = new Float32Array(w * h * 2);
      for (let j = 0; j < h; ++j) {
        for (let i = 0; i < w; ++i) {
          const v = field.samples[j * step * field.width + i * step];
          const k = j * w + i;
          positions[k * 3] = x0 + (x1 - x0) * (i * step) / Math.max(1, field.width - 1);
          positions[k * 3 + 1] = (Number.isNaN(v) ? 0 : v) * world.verticalScale;
          positions[k * 3 + 2] = y0 + (y1 - y0) * (j * step) / Math.max(1, field.height - 1);
          uvs[k * 2] = (i * step) / Math.max(1, field.width - 1);
          uvs[k * 2 + 1] = (j * step) / Math.max(1, field.height - 1);
        }
      }
      const index = new Uint32Array((w - 1) * (h - 1) * 6);
      let at = 0;
      for (let j = 0; j + 1 < h; ++j) {
        for (let i = 0; i + 1 < w; ++i) {
          const a = j * w + i, b = a + 1, c = a + w, d = c + 1;
          index[at++] = a; index[at++] = c; index[at++] = b;
          index[at++] = b; index[at++] = c; index[at++] = d;
        }
      }
      const geometry = new THREE.BufferGeometry();
      geometry.setAttribute("position", new THREE.BufferAttribute(positions, 3));
      geometry.setAttribute("uv", new THREE.BufferAttribute(uvs, 2));
      geometry.setIndex(new THREE.BufferAttribute(index, 1));
      geometry.computeVertexNormals();
      const texture = new THREE.DataTexture(drape.rgba, drape.width, drape.height, THREE.RGBAFormat);
      texture.flipY = false;
      texture.colorSpace = THREE.SRGBColorSpace;
      texture.magFilter = THREE.LinearFilter;
      texture.minFilter = THREE.LinearMipmapLinearFilter;
      texture.generateMipmaps = true;
      texture.needsUpdate = true;
      const material = new THREE.MeshLambertMaterial({ map: texture, side: THREE.DoubleSide });
      if (this.mesh) {
        this.scene.remove(this.mesh);
        this.mesh.geometry.dispose();
        this.mesh.material.map.dispose();
        this.mesh.material.dispose();
      }
      this.mesh = new THREE.Mesh(geometry, material);
      this.mesh.scale.y = this.exaggeration;
      this.scene.add(this.mesh);
      if (!this.orbit) {
        const size = Math.max(x1 - x0, y1 - y0);
        this.orbit = { target: new THREE.Vector3((x0 + x1) / 2, 0, (y0 + y1) / 2), yaw: -0.6, pitch: 0.7, distance: 1.45 * size };
      }
      this.resize();
    }

    setExaggeration(value) {
      this.exaggeration = value;
      if (this.mesh) this.mesh.scale.y = value;
      this.draw();
    }

    bindMouse() {
      const canvas = this.renderer.domElement;
      let last = null, panning = false;
      canvas.addEventListener("contextmenu", (e) => e.preventDefault());
      canvas.addEventListener("pointerdown", (e) => {
        last = [e.clientX, e.clientY];
        panning = e.button === 2 || e.shiftKey;
        canvas.setPointerCapture(e.pointerId);
      });
      canvas.addEventListener("pointerup", () => { last = null; });
      canvas.addEventListener("pointermove", (e) => {
        if (!last || !this.orbit) return;
        const dx = e.clientX - last[0], dy = e.clientY - last[1];
        last = [e.clientX, e.clientY];
        const o = this.orbit;
        if (panning) {
          const scale = o.distance / canvas.clientHeight;
          const right = [Math.cos(o.yaw), -Math.sin(o.yaw)], ahead = [Math.sin(o.yaw), Math.cos(o.yaw)];
          o.target.x -= (dx * right[0] - dy * ahead[0]) * scale;
          o.target.z -= (dx * right[1] - dy * ahead[1]) * scale;
        } else {
          o.yaw -= dx * 0.01;
          o.pitch = Math.min(1.55, Math.max(0.05, o.pitch + dy * 0.01));
        }
        this.draw();
      });
      canvas.addEventListener("wheel", (e) => {
        e.preventDefault();
        if (!this.orbit) return;
        this.orbit.distance *= Math.exp(e.deltaY * 0.001);
        this.draw();
      }, { passive: false });
    }

    resize() {
      const w = this.container.clientWidth, h = this.container.clientHeight;
      if (!w || !h) return;
      this.renderer.setSize(w, h);
      this.camera.aspect = w / h;
      this.camera.updateProjectionMatrix();
      this.draw();
    }

    draw() {
      if (!this.orbit) return;
      const o = this.orbit;
      this.camera.position.set(
        o.target.x + o.distance * Math.cos(o.pitch) * Math.sin(o.yaw),
        o.target.y + o.distance * Math.sin(o.pitch),
        o.target.z + o.distance * Math.cos(o.pitch) * Math.cos(o.yaw));
      this.camera.near = o.distance / 1000;
      this.camera.far = o.distance * 100;
      this.camera.updateProjectionMatrix();
      this.camera.lookAt(o.target);
      this.renderer.render(this.scene, this.camera);
      this.container.dataset.frames = String(Number(this.container.dataset.frames || 0) + 1);
    }
  }

  Orogen.Relief = Relief;
})(window.Orogen);
